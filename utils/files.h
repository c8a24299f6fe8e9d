// Files, directories and paths: status for change detection, whole-file read and
// atomic write, path expansion, directory listing, device numbers and disk space.
// Failures are reported as false results; the functions never throw. A path
// that holds a NUL byte fails in every one of them (the system would read it
// as a shorter path).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace utils {

// Directory of the running program's executable, with its trailing '/'
// (so that "?.lua" can be appended directly). Empty when it cannot be found.
std::string GetProgramExeDir();

// What a reload check compares. Modification times on Linux advance in clock
// ticks, so two writes a few milliseconds apart may share one; size and inode
// catch most of those (an editor's save-by-rename always changes the inode).
struct FileStatus {
  bool exists = false;
  int64_t mtimeNs = 0;  // modification time, nanoseconds since the epoch
  uint64_t size = 0;
  uint64_t inode = 0;
  uint64_t device = 0;

  bool operator==(const FileStatus& other) const {
    return exists == other.exists && mtimeNs == other.mtimeNs && size == other.size &&
           inode == other.inode && device == other.device;
  }
  bool operator!=(const FileStatus& other) const { return !(*this == other); }
};

// Status of the file `path` names, following symbolic links. A path that cannot
// be examined (missing, or not reachable) yields the default: exists == false.
FileStatus GetStatus(const std::string& path);

// Reads the whole file into *out (replacing its content). On failure returns
// false and, when `error` is not null, a message naming the path and the cause.
bool ReadFile(const std::string& path, std::string* out, std::string* error = nullptr);

// ReadFile for input that someone else may have chosen: refuses, with the
// reason in *error, anything but a regular file (a FIFO or a device such as
// /dev/zero would be read without end) and a file of more than `maxBytes`.
bool ReadRegularFile(const std::string& path, size_t maxBytes, std::string* out,
                     std::string* error = nullptr);

// Replaces the file's content so that a crash at any point leaves either the old
// or the new content: writes a temporary file in the same directory, syncs it,
// renames it over `path` and syncs the directory. A new file gets 0666 less the
// umask; an existing file keeps its permission bits. A symbolic link at `path`
// is replaced by a regular file. On failure the temporary file is removed and
// `path` is untouched.
bool WriteFileAtomically(const std::string& path, const std::string& data,
                         std::string* error = nullptr);

// Expands a leading "~" (the current user's home: $HOME, else the password
// database) or "~name" (that user's home; left as it is when there is no such
// user), then "$NAME" and "${NAME}" anywhere (NAME of letters, digits and '_',
// not starting with a digit; an unset variable expands to nothing). A '$' that
// starts neither form is kept. Nothing is ever executed: there is no command
// substitution, globbing or quote removal.
std::string ExpandPath(const std::string& path);

// Appends the names in directory `path` ("." and ".." left out, hidden names
// included), sorted bytewise so results do not depend on the file system. On
// failure returns false and appends nothing.
bool GetDirectoryContents(const std::string& path, std::vector<std::string>* names);

// Device numbers for `path`: for a character or block device file, the device
// it stands for (/dev/sda gives 8, 0); for any other file, the device that
// holds it, so a mount point or a file on it names its file system's device.
// Null pointers are not filled. False when the path cannot be examined.
bool GetDevNumbers(const std::string& path, unsigned int* majorNumber,
                   unsigned int* minorNumber);

// Size of the file system holding `path`, in bytes: all of it, what an
// unprivileged user may still use, and what is free including the blocks
// reserved for root. Null pointers are not filled. False when statvfs fails.
bool GetDiskSpaceInfo(const std::string& path, uint64_t* total, uint64_t* avail,
                      uint64_t* free);

}  // namespace utils
