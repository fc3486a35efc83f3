#include "qlcopy/ThreadPriority.h"

#include <pthread.h>
#include <pthread/qos.h>

namespace ql {

void ThreadPriority::lowerCurrentThread() { ::pthread_set_qos_class_self_np(QOS_CLASS_UTILITY, 0); }

}  // namespace ql
