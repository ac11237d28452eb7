// collect_stop.hpp: how the serving loop is stopped, and how whatever waits in it learns of that.
#pragma once

// Begins the service; false when there is one already, or it could not be woken.
bool beginService();

// Ends it. Returns whether it was stopped, which then no longer counts for the next.
bool endService();

// Whether the service shall stop. Never outside of it.
bool isStopped();

// A descriptor that hangs up for poll at a stop; -1 outside the service.
int wakeDescriptor();
