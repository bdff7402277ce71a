#ifndef NOX_DEVICE_DIAG_CHANNEL_H
#define NOX_DEVICE_DIAG_CHANNEL_H

// The diagnostic channel on a device (the host's stand-in is
// platform/include/diag_channel.h, which says what the framework needs of it). Include
// here the modem vendor's diagnostic header from libdiag, which declares msg_sprintf,
// and name the descriptor type it takes diag_msg_descriptor, for example
//   #include <VENDOR_DIAG_HEADER>
//   typedef VENDOR_DESCRIPTOR_TYPE diag_msg_descriptor;
// then delete the line below.
#error "android/include/diag_channel.h: map the modem vendor's diagnostic header here"

#endif  // NOX_DEVICE_DIAG_CHANNEL_H
