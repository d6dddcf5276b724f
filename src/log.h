// The module's one way of logging: "<source file>:<line> <message>" at error
// priority. Each statement stays on one line so that its line number is the
// line of the format.
//
// Every format is the device's own wording and stays as written, misspellings,
// lower case and odd grammar included: whoever reads or matches the device's
// log finds the same lines here. The comments that point back here mark the
// ones that look most like slips.
#pragma once

#include <syslog.h>

#include "talv/tlibc.h"

#define PELLIX_LOG(fmt, ...) PELLIX_LOG_AT(LOG_ERR, fmt, ##__VA_ARGS__)
#define PELLIX_LOG_AT(priority, fmt, ...) syslog((priority), "%s:%d " fmt, __FILE_NAME__, __LINE__, ##__VA_ARGS__)

// The core library's error state, for formats that end in "[0x%04X %s:%d]".
#define TLIBC_ERROR_STATE TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine()
