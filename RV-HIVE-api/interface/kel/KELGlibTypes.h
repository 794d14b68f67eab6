#pragma once

// GLib and GIO handles appear in the channel's declarations as pointers only, so a program that
// uses <kel/...> needs no GLib header. These repeat GLib's own typedefs, which C++ permits.

typedef struct _GAsyncResult GAsyncResult;
typedef struct _GDBusConnection GDBusConnection;
typedef struct _GDBusInterfaceVTable GDBusInterfaceVTable;
typedef struct _GDBusMethodInvocation GDBusMethodInvocation;
typedef struct _GDBusNodeInfo GDBusNodeInfo;
typedef struct _GDBusProxy GDBusProxy;
typedef struct _GMainContext GMainContext;
typedef struct _GMainLoop GMainLoop;
typedef struct _GObject GObject;
typedef struct _GVariant GVariant;
