// Folders and files reached through the descriptor of the folder they are
// in, never through a symbolic link: what the stores of the output folder
// (the ".eml" copies, the attachments) write with, so that a link planted in
// the output folder never sends a file elsewhere.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace pelka {

// Opens the folder `name` below `parent_fd`; -1 with errno ELOOP or ENOTDIR
// when a link or a file is in its place.
int OpenFolder(int parent_fd, const char* name);

// Makes the folder when missing and opens it, as OpenFolder.
int MakeFolder(int parent_fd, const char* name, mode_t mode);

// The names of the entries of the folder open at `folder_fd` ("." and ".."
// left out); the descriptor stays open and its own. Empty when it cannot be
// read.
std::vector<std::string> FolderEntryNames(int folder_fd);

// What the user is told when the folder at `path`, named as `what` ("the
// copy folder"), cannot be made or opened, `code` being errno.
std::string FolderProblem(const char* what, const std::string& path, int code);

// Opens the folder `name` of the output folder `out_dir` (absolute, ending
// with '/'), made 0750 when missing (`made` then true). -1 with `error` set
// when it cannot be, naming it as `what` ("the copy folder"): a link or a
// file in its place is refused.
int OpenOutputSubfolder(const std::string& out_dir, const char* name, const char* what, bool* made,
                        std::string* error);

// Moves without replacing: false with errno EEXIST when the name is taken.
bool MoveNoReplace(int from_fd, const char* from, int to_fd, const char* to);

}  // namespace pelka
