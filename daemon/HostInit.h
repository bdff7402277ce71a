#ifndef NOXD_HOST_INIT_H
#define NOXD_HOST_INIT_H

// What init does for noxd on a device, which the daemon does itself on a host: the
// control socket, the property store's file, and carrying out "ctl.stop". A device
// build compiles none of it. Each call returns "" or the one line to print on failure.

#include <string>

namespace hostinit {

// Creates and binds the control socket at `path` (mode 0660) and puts its descriptor
// in ANDROID_SOCKET_noxd. A stale socket file is replaced; one that a live daemon
// serves is not.
std::string createControlSocket(const char* path);
// Adopts the property file (`path`, else $NOX_PROPERTY_FILE, else memory only) and
// carries out "ctl.stop" by raising SIGTERM once `stopRequested` is set.
std::string useProperties(const char* path);
// Where the properties come from, for messages: "in FILE", "in FILE, which did not
// exist" or "(no property file)".
std::string propertySource();
// Whether "ctl.stop" asked for noxd.
bool stopRequested();

}  // namespace hostinit

#endif  // NOXD_HOST_INIT_H
