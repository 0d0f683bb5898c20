// Orders from application threads about the element a port's worker has in service. The worker
// carries them out when it wakes, so that only its thread ever touches that element.
#ifndef VELMORA_QUEUES_WORKER_ORDERS_H
#define VELMORA_QUEUES_WORKER_ORDERS_H

#include <atomic>

namespace velmora {

struct WorkerOrders {
  std::atomic<bool> mark_active_cleared{false};
  std::atomic<bool> drop_active{false};
};

WorkerOrders &OrdersOf(unsigned int nDriverId);

}  // namespace velmora

#endif
