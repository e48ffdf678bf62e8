// index.bif, the index of a tag's image files on the share: a first line "[DataCnt],<count>",
// then one line per file with five comma-separated fields: marker, file name (ImageDataInfo),
// Attribute, Various, Up_DateCounter. Lines end in LF or CR LF. Fields are found by position
// only; there is no quoting.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mv {

inline constexpr char kIndexFileName[] = "index.bif";

struct IndexBif {
  // Field 1 of the first line as a decimal number; 0 when that line is missing, empty or holds no
  // number.
  int32_t count = 0;
  // The lines after the first, without their CR; empty lines are kept, since the staleness test
  // pairs lines by position.
  std::vector<std::string> lines;
};

IndexBif parseIndexBif(std::string_view text);
// False (and an empty index) when the file cannot be read.
bool readIndexBif(std::string_view path, IndexBif& index);

// Field `n` (from 0) of a line, or nothing when the line has fewer fields.
std::optional<std::string_view> indexField(std::string_view line, std::size_t n);
// Field `n` as a decimal number; 0 when it is missing.
int32_t indexNumber(std::string_view line, std::size_t n);

// The file names (field 1) of the non-empty lines whose Attribute (field 2) is 1 or 5, in order.
std::vector<std::string> selectedFiles(const IndexBif& index);

// True if `name` is index.bif in any case of letters.
bool isIndexFileName(std::string_view name);
// True if `name` has an extension: a '.' after its first character with something behind it.
bool hasExtension(std::string_view name);

// 1 if the files of `localFolder` must be fetched again from the share folder `folder`, else 0:
// the share has an index.bif and the local folder none; or the share's count is above the local
// count or above the number of local data files; or a line of the share's index has a higher
// Up_DateCounter than the local line at the same position.
int localFilesStale(std::string_view folder, std::string_view localFolder);

}  // namespace mv
