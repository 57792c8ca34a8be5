// SPDX-License-Identifier: GPL-2.0-only
// The control character device, the agent's only door. Its ioctl entry stands in
// control/dispatch.cpp.
#pragma once

// 0 or the negative result of the registration.
int snbf_char_init();
// 0, also when there is nothing to unregister.
int snbf_char_destroy();
