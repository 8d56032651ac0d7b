// The calling thread's error number. Only the system's .cpp files include this header: it
// defines the name errno as a macro.
#pragma once

#include "platform/error_numbers.h"

namespace orlix {

// The address of errno in the calling thread's record; a thread without a record ends.
int* __get_errno_ptr();
void __libci_set_errno(int value);
// Leaves errno as it is: the form of a path that reports nothing.
void __libci_omit_errno();

} // namespace orlix

#define errno (*::orlix::__get_errno_ptr())
