#include "ThreadPriority.h"

#include <sys/resource.h>
#include <unistd.h>

namespace miravel::view {

void lowerThisThreadsPriority() {
    // On Linux a nice value belongs to the thread; failure leaves it as it was.
    (void)::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 10);
}

}  // namespace miravel::view
