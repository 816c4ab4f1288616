// Private to the platform library: snapshot names, made and read in this
// one place. A snapshot name is its time to the second, "GMT" + zone + "-" +
// "%Y.%m.%d-%H.%M.%S": local time with its offset ("GMT+08-...",
// "GMT+0530-...") or UTC ("GMT-..."). Listings name every snapshot by the
// UTC form of its creation time; a snapshot made in the same second as an
// older one of its share gets "_" + its subvolume ID after that, so names
// stay unique and still read as the time.
#ifndef VELA_PLATFORM_SNAPSHOT_NAMES_H_
#define VELA_PLATFORM_SNAPSHOT_NAMES_H_

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace vela::platform {

// The time of a snapshot name, honouring its offset; false when `name` is
// no snapshot name.
bool ParseSnapName(const char* name, time_t* time);
// The name of `t` in local time (the zone's offset; "+08" for a whole hour)
// or, with `localTime` false, in UTC. False when the time does not convert;
// a buffer too small gets an empty name.
bool MakeSnapName(time_t t, bool localTime, char* buf, size_t size);
// The name a listing gives a snapshot created at `t`; `sameSecondAsOlder`
// when an older snapshot of the share has the same second.
std::string ListedSnapName(time_t t, uint64_t subvolId, bool sameSecondAsOlder);

}  // namespace vela::platform

#endif  // VELA_PLATFORM_SNAPSHOT_NAMES_H_
