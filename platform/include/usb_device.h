#pragma once

/* The device's USB storage service. ../README.md states the contract. */

#ifdef __cplusplus
extern "C" {
#endif

/* The class code of mass storage: https://www.usb.org/defined-class-codes, base class 08h. */
#define USB_DEVICE_CLASS_MASS_STORAGE 8

typedef struct usb_device_list* usb_device_list_h;
typedef struct usb_device* usb_device_h;

/* Opens the service for this process. Returns 0 on success. */
int usb_device_init(void);

/* Closes it, and releases every list and device that was handed out. Returns 0 on success. */
int usb_device_fini(void);

/*
 * Lists the devices of a class. Returns 0 on success. The list belongs to the service and is valid
 * until usb_device_fini().
 */
int usb_device_get_device_list(int filter, usb_device_list_h* list);

/* The number of devices in a list. */
int usb_device_list_get_count(usb_device_list_h list);

/* The first device of a list. Returns 0 on success. */
int usb_device_list_get_first(usb_device_list_h list, usb_device_h* device);

/* The directory where a device is mounted, or NULL. Valid until usb_device_fini(). */
const char* usb_device_get_mountpath(usb_device_h device);

#ifdef __cplusplus
}
#endif
