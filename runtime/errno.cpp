// errno lives in the calling thread's record. System code.
#include "runtime/errno.h"

#include "runtime/thread.h"

namespace orlix {

int* __get_errno_ptr() { return &__pthread_self()->errno_value; }

void __libci_set_errno(int value) { errno = value; }

void __libci_omit_errno() {}

} // namespace orlix
