// collect_client.hpp: what the loop and the runs need of the wire end beside its public functions.
#pragma once

#include "kep/Collect.h"
#include "kep/CollectClient.h"

constexpr int32_t kCollectModule = 100;  // of tracked memory

// What the serving thread counts, and any thread reads.
CollectStats &collectStats();
inline void countUp(uint32_t &counter) { __atomic_store_n(&counter, counter + 1, __ATOMIC_RELAXED); }

// Counts a run, as a finished one when it was done and every message has an acknowledgement of its own.
void countRun(bool isDone);

// Whether the host wants no texts that nobody has to see.
bool isSilent();

// Closes the connection and frees the message, sending nothing more.
void dropRun();
