// Whatever had a name that begins as a USB bus's counted as one, and a mount path ended at its
// first white space.

#include "HostPlatformTests.h"

TEST_F(HostUsb, ListsWhatIsMountedFromTheUsbBus)
{
    Mount("/tmp/disk", "pci0/ata1/block/sda/sda1");
    Mount("/tmp/controller", "usb-phy/usbx/usb/block/sdb");

    usb_device_list_h list = List();
    usb_device_h device = nullptr;
    EXPECT_EQ(usb_device_list_get_count(list), 0);
    EXPECT_NE(usb_device_list_get_first(list, &device), 0);
    EXPECT_EQ(device, nullptr);

    const fs::path path = "/tmp/a stick\\040\t\v\r\n#\xff";
    Mount(path, "pci0/usb1/1-2/host3/block/sdc/sdc1");
    Mount("/tmp/other", "pci0/usb12/1-3/block/sdd");

    list = List();
    EXPECT_EQ(usb_device_list_get_count(list), 2);
    EXPECT_EQ(FirstMountPath(list), path.string());
    EXPECT_EQ(usb_device_list_get_count(List(3)), 0) << "another class of devices";
}
