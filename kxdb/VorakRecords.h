// Blob layouts of the system's tables, stored byte for byte in native
// (little-endian on the target) order with no header or padding of their own.
#pragma once

#include <cstdint>

// One value per application: a process id, or the value given to updateFavDB.
struct _vorak_User_Launched_Data {
  int32_t value;
};

// One recorded sample: -1 when the sample lacked the field, 0 when it had no value.
struct _vorak_Meter_Data {
  int64_t ionKgsl;
  int64_t rssSwap;
};

// One learnt need per application or service: the means of its samples.
struct _vorak_Feature_Action_Data {
  int64_t ionKgsl;
  int64_t rssSwap;
};

// Up to 12 dependent services, each a NUL-terminated name of at most 255
// characters; unused slots all zero.
struct _vorak_App_Service_In {
  char serviceNames[12][256];
};

struct _vorak_App_Service_Out {
  char serviceNames[12][256];
};

// Favourite applications of one time slot, "/"-separated, NUL-terminated.
struct _vorak_Favorite_Time_Slot_Data {
  char favoriteApps[4096];
};

static_assert(sizeof(_vorak_User_Launched_Data) == 4, "blob size is part of the file format");
static_assert(sizeof(_vorak_Meter_Data) == 16, "blob size is part of the file format");
static_assert(sizeof(_vorak_Feature_Action_Data) == 16, "blob size is part of the file format");
static_assert(sizeof(_vorak_App_Service_In) == 3072, "blob size is part of the file format");
static_assert(sizeof(_vorak_App_Service_Out) == 3072, "blob size is part of the file format");
static_assert(sizeof(_vorak_Favorite_Time_Slot_Data) == 4096, "blob size is part of the file format");
