// A stand-in plug-in: its entry logs that it ran and registers a handler, so a
// test can see the load order and that it received the daemon object.
#include <string>

#include "Nox.h"
#include "NoxLog.h"

#ifdef NOX_TEST_ENTRY
namespace {
void onInitDone(NoxMsgEnumType, const void*, void*) {}
}  // namespace

extern "C" void NOX_TEST_ENTRY(Nox* nox) {
  // The daemon has stored this plug-in's handle before calling its entry.
  const bool fd = std::string(NOX_TEST_ENTRY_NAME) == "init_fd_mgr";
  const bool stored = (fd ? nox->fdMgrHandle : nox->ctMgrHandle) != nullptr;
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TEST, "%s called%s", NOX_TEST_ENTRY_NAME,
          stored ? "" : " before its handle was stored");
  nox->dispatcher.regEventCallback(NOX_S_NOTIFY_INIT_DONE, onInitDone, nullptr);
}
#endif
