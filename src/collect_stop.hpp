// collect_stop.hpp: how the serving loop is stopped, and how whatever waits in it learns of that.
#pragma once

#include "ZuSock.hpp"

// Begins the service; false when there is one already, or it could not be woken.
bool beginService();

// Ends it. Returns whether it was stopped, which then no longer counts for the next.
bool endService();

bool isServing();

// Whether the service shall stop. Never outside of it.
bool isStopped();

// Deadline::waitFor, which in the service a stop ends; then it is false, be the socket ready or not.
bool waitUnlessStopped(const Deadline &deadline, int fd, short events);

// Waits so long; in the service until a stop at most.
void pauseUnlessStopped(int32_t ms);
