// The calling thread's error number. Only the system's .cpp files include this header: it
// defines the name errno as a macro.
#pragma once

namespace orlix {

int* __get_errno_ptr();
void __libci_set_errno(int value);

} // namespace orlix

#define errno (*::orlix::__get_errno_ptr())
