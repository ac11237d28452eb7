// schema.hpp: the tables of the store, and how those of an older program become today's.
#pragma once

#include <vector>

#include "kep-fleet/database.hpp"

namespace kepfleet {

// What makes one version of the schema out of the one before it, in the words of each database.
struct Migration {
  const char *sqlite;
  const char *postgres;
};

// All of them, from nothing on: as many as there are versions. What has been published is never changed.
const std::vector<Migration> &migrations();

// Brings a database to the last version, in one transaction. Throws StoreError, also when it is newer.
void migrate(Database &database, const std::vector<Migration> &steps);

// Throws StoreError unless it is of this version.
void checkVersion(Database &database, size_t version);

}  // namespace kepfleet
