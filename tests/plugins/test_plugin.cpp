// A stand-in plug-in: its entry logs that it ran and registers a handler, so a
// test can see the load order and that it received the daemon object.
// NOX_TEST_VERSION, when set, is the interface version it claims.
#include <string>

#include "NoxPlugin.h"

#ifdef NOX_TEST_VERSION
extern "C" const int nox_plugin_interface_version = NOX_TEST_VERSION;
#else
NOX_PLUGIN_DECLARE_INTERFACE_VERSION();
#endif

#ifdef NOX_TEST_ENTRY
namespace {
void onInitDone(NoxMsgEnumType, const void*, void*) {}
}  // namespace

extern "C" void NOX_TEST_ENTRY(Nox* nox) {
  // The daemon has stored this plug-in's handle before calling its entry.
  const bool fd = std::string(NOX_TEST_ENTRY_NAME) == "init_fd_mgr";
  const bool stored = (fd ? nox->fdMgrHandle : nox->ctMgrHandle) != nullptr;
  NOX_PLUGIN_LOG(NOX_LOG_INFO, "TEST", "%s called%s", NOX_TEST_ENTRY_NAME,
                 stored ? "" : " before its handle was stored");
  nox->dispatcher.regEventCallback(NOX_S_NOTIFY_INIT_DONE, onInitDone, nullptr);
}

#endif
