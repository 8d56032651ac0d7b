// Stand-in until threads have their own records: the error number lives in the host thread's
// local storage.
#include "runtime/errno.h"

namespace orlix {

namespace {
constinit thread_local int thread_errno = 0;
}

int* __get_errno_ptr() { return &thread_errno; }

void __libci_set_errno(int value) { thread_errno = value; }

} // namespace orlix
