// SPDX-License-Identifier: Apache-2.0
// The buffer modules as a C program sees them; called by ssrs_setup_test.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Makes calls of both modules. Returns 0, or the line of the first call that went wrong.
int bufferFromC(void);

#ifdef __cplusplus
}
#endif
