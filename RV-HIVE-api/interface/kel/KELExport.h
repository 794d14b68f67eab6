#pragma once

/// @file
/// What the library exports, and what it keeps to itself.

/// Marks what the library exports. Everything else is built hidden.
#define KEL_EXPORT __attribute__((visibility("default")))

/// Keeps a nested type of an exported class private to the library.
#define KEL_HIDDEN __attribute__((visibility("hidden")))
