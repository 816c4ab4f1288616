// Private to the platform library: the space map's file format, in one
// place for its writer and its reader.
//
// An SQLite database whose header carries kApplicationId and the format
// version (PRAGMA application_id, user_version), holding exactly the
// tables of kSchema:
//   meta        "generation" (the commit read), "files_complete" (0 or 1)
//   subvolume   the calculated subvolumes by position in the calculation
//   signature   per signature: its members as text ("0-4,7,9-12": runs of
//               positions, ascending, neither overlapping nor touching),
//               whether a subvolume outside references it too, and its
//               data and metadata bytes
//   file_bytes  per signature and file: the bytes of that signature's
//               data extents the file references, and the newest position
//               referencing them
//   file_path   per file and position: the file's path there
// Unsigned 64-bit numbers are stored as the signed ones with the same bits.
#ifndef VELA_PLATFORM_SPACE_MAP_FORMAT_H_
#define VELA_PLATFORM_SPACE_MAP_FORMAT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "vela/space_map.h"

namespace vela::platform::space_map_format {

// "VSMP" as a big-endian number.
constexpr int32_t kApplicationId = 0x56534D50;

// The tables, one statement each, as the writer creates them and as the
// reader requires them to be.
extern const char* const kSchema[];
extern const size_t kSchemaSize;
// Names of the tables of kSchema, in its order.
extern const char* const kTables[];

// "0-4,7,9-12" for the runs {0,4}, {7,7}, {9,12}.
std::string MembersText(const std::vector<space_map::Run>& runs);
// The runs of a members text, or false when the text is not exactly what
// MembersText writes for runs below `positions`.
bool ParseMembers(const std::string& text, uint32_t positions, std::vector<space_map::Run>* runs);

}  // namespace vela::platform::space_map_format

#endif  // VELA_PLATFORM_SPACE_MAP_FORMAT_H_
