// The layout of a recording file. A file carries our application id and a format version;
// a file without the id is not a recording, and one with a newer version is refused rather
// than misread.
//
// Times are stored as one number, StoreTime::key(). A history event is a row of `events`
// with its properties in `properties` (key 0: the recording, track_id 0; key 1: a track).
// `documents` are the metadata track's documents.
#pragma once

#include <cstdint>

#include "kavro/contract.h"

namespace store {

class SqliteDb;

namespace schema {

constexpr int32_t kApplicationId = 0x4b565243;  // "KVRC"
constexpr int kVersion = 1;
constexpr const char* kMetadataTrack = kavro::contract::kMetadataTrack;

// Makes the tables of an empty database; a database that is already a recording is checked
// instead and left as it is.
void createOrCheck(SqliteDb& db);
// Throws StoreError with a one-line reason when db is not a recording this build can read.
void check(SqliteDb& db);

}  // namespace schema
}  // namespace store
