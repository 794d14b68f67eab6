#pragma once

/// @file
/// GLib and GIO handles appear in the channel's declarations as pointers only, so a program that
/// uses <kel/...> needs no GLib header. These repeat GLib's own typedefs, which C++ permits.

typedef struct _GAsyncResult GAsyncResult;                   ///< GLib's own.
typedef struct _GDBusConnection GDBusConnection;             ///< GLib's own.
typedef struct _GDBusInterfaceVTable GDBusInterfaceVTable;   ///< GLib's own.
typedef struct _GDBusMethodInvocation GDBusMethodInvocation; ///< GLib's own.
typedef struct _GDBusNodeInfo GDBusNodeInfo;                 ///< GLib's own.
typedef struct _GDBusProxy GDBusProxy;                       ///< GLib's own.
typedef struct _GMainContext GMainContext;                   ///< GLib's own.
typedef struct _GMainLoop GMainLoop;                         ///< GLib's own.
typedef struct _GObject GObject;                             ///< GLib's own.
typedef struct _GVariant GVariant;                           ///< GLib's own.
