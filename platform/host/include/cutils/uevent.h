// Host stand-in for the kernel uevent socket: a datagram socket bound at
// $MARLO_ROOT/dev/uevent.
#pragma once

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

int uevent_open_socket(int buf_sz, bool passcred);
ssize_t uevent_kernel_multicast_recv(int socket, void* buffer, size_t length);

#ifdef __cplusplus
}
#endif
