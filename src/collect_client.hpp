// collect_client.hpp: the counters of the collection service, kept where most of what they count happens.
#pragma once

#include "kep/Collect.h"
#include "kep/CollectClient.h"

CollectStats &collectStats();
