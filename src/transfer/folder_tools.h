// Folder tools shared by the book contents and the carrying and copying of books: making a
// folder with its parents, copying a tree, emptying a tree. Paths use '\' (or '/') as separator.
#pragma once

#include <string_view>

namespace mv {

// Makes `path` and every missing parent. The components before the character at index 3 are
// not made on their own (that steps over a drive root such as "C:\"). Non-zero if the folder
// exists afterwards.
int CreateFolderPath(std::string_view path);

// Copies the files and folders below `source` into `destination`, which is made first (with its
// parents). Names that begin with '.' are left out. An existing target file is replaced only
// with `overwrite` set; every copied file is made writable, so that a read-only source gives a
// writable copy. A source that cannot be listed, or is empty, copies nothing and gives 1. The
// first failed copy stops the walk: 0. Else 1.
int CopyFolderTree(std::string_view source, std::string_view destination, int overwrite);

// Empties `folder`, which itself stays: files are deleted, folders emptied and removed. Names that
// begin with '.' are left, and so is the folder that holds one. A folder that does not exist gives
// 1. The first failed removal stops the walk: 0. Else 1.
int DeleteFolderTree(std::string_view folder);

// Copies one file, replacing an existing target when `overwrite` is set, and makes the copy
// writable (a read-only source would otherwise give a target that the next copy cannot replace).
bool copyFileWritable(std::string_view from, std::string_view to, bool overwrite);

}  // namespace mv
