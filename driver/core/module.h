// SPDX-License-Identifier: GPL-2.0-only
// Load and unload: snbf_init and snbf_unload are declared in platform/entry.h.
#pragma once

// One pass of the teardown. Stops at the first step that fails; what is then still there stays.
void snbf_cleanup();
