// collect_client.hpp: what the loop and the runs need of the wire end beside its public functions.
#pragma once

#include "kep/Collect.h"
#include "kep/CollectClient.h"

// Counts one more.
void count(uint32_t CollectStats::*counter);

// Whether texts leave that nobody has to see.
bool isTraced();

// Whether every message of the run so far has an acknowledgement of its own.
bool isAcknowledged();

// Closes the connection and frees the message, sending nothing more.
void dropRun();
