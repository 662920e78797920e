#include "platform/ProcessMemory.h"

#include <malloc.h>
#include <sys/prctl.h>

namespace quorva {

void TuneProcessMemory() {
    (void)prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
    (void)mallopt(M_MMAP_THRESHOLD, 1 << 20);
}

} // namespace quorva
