// The library's application object: fills the tables at load and cleans up at unload.
#ifndef VELMORA_API_DRIVER_APP_H
#define VELMORA_API_DRIVER_APP_H

namespace velmora {

class CDriverApp {
 public:
  // Queues empty, history empty, every port, service and application row at its start value.
  // 1 on success.
  int InitInstance();
  // Stops the workers of ports still open and closes them, then frees the history.
  int ExitInstance();
};

CDriverApp &TheDriverApp();


}  // namespace velmora

#endif
