// Temporary files: TwGetTempFileName (a new file with a unique name in the system temporary
// directory), TwTempFile (such a file held open for reading and writing and removed when
// released) and TwGetDiskFreeSpace (the free space behind a directory, which a host may answer
// itself).
#ifndef MVDA_PLATFORM_TEMP_FILE_H_
#define MVDA_PLATFORM_TEMP_FILE_H_

#include <mvda/mvda_export.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

// The system temporary directory (TMPDIR, TEMP and the like, as std::filesystem finds it).
// Throws NCError when the system names none.
MVDA_EXPORT std::filesystem::path TwGetTempDirectory();

// Creates a new, empty file named "<prefix><16 hex digits>.<extension>" in the system temporary
// directory and returns its path; the caller removes it. The file is created exclusively, so two
// processes (or threads) never receive the same name. Throws NCError when no file can be created.
MVDA_EXPORT std::filesystem::path TwGetTempFileName(const std::string& prefix,
                                                    const std::string& extension);

// A temporary file that lives as long as the object: created by the constructor with
// TwGetTempFileName, open for binary reading and writing, and closed and removed by the
// destructor, also when an exception unwinds the owner. Throws NCError: TwGetTempFileName's when
// no file can be created, "The temporary file <path> could not be opened" when it cannot be opened.
class MVDA_EXPORT TwTempFile {
 public:
  TwTempFile(const std::string& prefix, const std::string& extension);
  TwTempFile(const TwTempFile&) = delete;
  TwTempFile& operator=(const TwTempFile&) = delete;
  ~TwTempFile();

  std::fstream& Stream() { return stream_; }
  const std::filesystem::path& GetPath() const { return path_; }

 private:
  std::filesystem::path path_;
  std::fstream stream_;
};

// The bytes available to this process on the volume that holds `directory`. False when the
// system cannot tell (the directory is missing, a network share that does not answer).
MVDA_EXPORT bool TwGetDiskFreeSpace(const std::filesystem::path& directory,
                                    std::uintmax_t& freeBytes);

// A host whose users work under disk quotas knows better than the volume how much they may still
// write: it installs its own query, which TwGetDiskFreeSpace then calls instead. An empty function
// restores the volume query (std::filesystem::space). Thread-safe.
using TwDiskFreeSpaceQuery =
    std::function<bool(const std::filesystem::path& directory, std::uintmax_t& freeBytes)>;
MVDA_EXPORT void TwSetDiskFreeSpaceQuery(TwDiskFreeSpaceQuery query);

#endif  // MVDA_PLATFORM_TEMP_FILE_H_
