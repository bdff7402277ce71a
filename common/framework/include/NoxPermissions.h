#ifndef NOX_PERMISSIONS_H
#define NOX_PERMISSIONS_H

// Admission of client processes that connect to the control socket: by group id,
// or by process name. Copyable; a copy duplicates the allow list. Allocation
// failure while building or copying the list exits the process (status 1).

#include <list>

// One allow entry: a group id, or (isName) a process name of up to 31 bytes.
struct PermissionInfo {
  bool isName;
  int gid;
  char name[32];
};

class NoxPermissions {
 public:
  // Allows the groups 0, 1000, 2000 and 3003, in this order, and no names.
  NoxPermissions();
  NoxPermissions(const NoxPermissions& other);
  NoxPermissions& operator=(const NoxPermissions& other);

  // Appends a group-id entry.
  void allowGid(int gid);
  // Appends a name entry; false (and nothing added) for a name of 32 bytes or more.
  bool allowName(const char* name);

  // True if a group-id entry equals gid.
  bool isGidAllowed(int gid) const;
  // True if a name entry equals name exactly, in bytes and length.
  bool isNameAllowed(const char* name) const;
  // The connection handler's check: the group first; only when it is not listed
  // is the process name read (at most 4 bytes, see NoxUtils::GetAppName).
  bool isAppAllowed(int pid, int gid) const;

  // Sets the secure bits so capabilities survive a change of user id (locked).
  // Returns 0, or -1 on failure. For the daemon's start-up.
  static int setProcessCapabilities();

 private:
  void append(const PermissionInfo& entry);

  std::list<PermissionInfo> permissionList;
};

#endif  // NOX_PERMISSIONS_H
