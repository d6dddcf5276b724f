/* Feasibility-check library: may an operation of the device run now? */
#pragma once

#include "talv/tlibc.h"

#ifdef __cplusplus
extern "C" {
#endif

#define FEASIBILITY_ITEM_ACCOUNT_LOGOUT 30
#define FEASIBILITY_CHECK_HARD 1
#define FEASIBILITY_CHECK_SOFT 2

/* Checks whether operation `item` is feasible in grade `type`. Appends the
 * reasons to *ppReasons, which may be replaced through the address. Returns 0
 * when feasible, greater than 0 when not, negative on failure (error state
 * set). `reserved` must be NULL. */
int TALVFeasibilityCheck(int item, int type, TLIBC_SZLIST** ppReasons, void* reserved);

#ifdef __cplusplus
}
#endif
