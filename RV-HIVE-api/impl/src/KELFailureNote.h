#pragma once

#include <gio/gio.h>

#include <kel/KELFailure.h>

#include "KELGlib.h"

namespace kel {

// What LastFailure() tells on this thread. Noting costs a store where nothing has failed: an error
// is kept as it came, and looked at by whoever asks.

/// What an error tells.
EFailure KindOf(const GError& error);

/// A failure in words; without an error there are none.
TSFailure Describe(EFailure kind, const GError* error);

/// The beginning of an operation.
void ClearFailure();

/// A failure without an error.
void NoteFailure(EFailure kind);

/// A failure with its error, which is taken.
void NoteFailure(EFailure kind, TCGlibError& error);

/// A failure that its error tells.
void NoteFailure(TCGlibError& error);

/// Keeps this thread's failure for NoteFailedStart().
void KeepFailedStart();

/// The failure of an end that could not start: that of the last one.
void NoteFailedStart();

} // namespace kel
