// OutputStreamDirectory and InputStreamDirectory: numbered, length-prefixed entries inside a
// binary stream, so that a reader can take the entries it knows and skip the others. The byte
// layout is in docs/stream-format.md.
#ifndef MVDA_PLATFORM_STREAM_DIRECTORY_H_
#define MVDA_PLATFORM_STREAM_DIRECTORY_H_

#include <mvda/mvda_export.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>

// Directories nest (an entry may hold objects with directories of their own) at most this deep.
// The containers need three levels; the bound keeps a hostile stream from building a chain of
// readers as long as the stream itself.
inline constexpr int kMaxStreamDirectoryDepth = 64;

// Writes a directory of `entry_count` entries (ids 0 .. entry_count-1) to `os`. Entries are
// written in ascending id order, each at most once; an entry never asked for is simply absent.
// GetOutput(id) ends the entry in progress and returns the stream of entry id (asking again for
// the entry in progress continues it). Close() writes the directory and returns whether `os` is
// still good; a failed write inside any entry (an embedded object that could not write itself)
// makes it false too.
//
// The bytes are gathered in memory and go to `os` at Close(): the length of an entry precedes its
// bytes, and `os` need not be seekable. A directory opened on an entry stream of another
// directory writes straight into that directory's memory, so nested objects cost no extra copy.
// While a directory is open, write to its stream only through its entries, and close it before
// the directory around it continues. The destructor closes a directory that is still open.
//
// Programming errors throw NCError: an id outside 0 .. entry_count-1, an id below one already
// written, GetOutput after Close, nesting deeper than kMaxStreamDirectoryDepth.
class MVDA_EXPORT OutputStreamDirectory {
 public:
  OutputStreamDirectory(std::ostream& os, int entry_count);
  OutputStreamDirectory(const OutputStreamDirectory&) = delete;
  OutputStreamDirectory& operator=(const OutputStreamDirectory&) = delete;
  ~OutputStreamDirectory();

  std::ostream& GetOutput(int id);
  bool Close();

 private:
  struct Impl;
  std::ostream& os_;
  int entry_count_;
  std::unique_ptr<Impl> impl_;
};

// Reads a directory written by OutputStreamDirectory from `is`. GetInput(id) returns a stream
// positioned at the start of entry id, or null when the directory has no such entry (or the
// stream is damaged). Entries are asked for in ascending id order; entries in between, and ids
// the reader does not know, are skipped unread. Asking again for the entry in progress returns
// its stream where it stands. The returned stream ends where the entry ends, so a reader cannot
// run into the next entry, and StreamBytesLeft on it always tells the entry's remaining bytes:
// compare every count read from an entry with it before allocating. The stream stays valid until
// the next GetInput or Close.
//
// Close() skips what is left of the directory, leaving `is` just after it, and returns whether
// the directory was read without damage: false when `is` failed, when the directory is corrupt
// (ids not ascending, an entry longer than the stream) or when a read inside an entry failed
// (this also marks `is` failed). The destructor closes a directory that is still open.
//
// A damaged stream never makes it read past the end of an entry or of `is`, nor allocate more
// than the bytes that have actually arrived. When `is` cannot tell its length (a pipe, a socket),
// an entry handed out is first read into memory in bounded steps, so that its length is known.
//
// Programming errors throw NCError: a negative id, an id below one already asked for, GetInput
// after Close.
class MVDA_EXPORT InputStreamDirectory {
 public:
  explicit InputStreamDirectory(std::istream& is);
  InputStreamDirectory(const InputStreamDirectory&) = delete;
  InputStreamDirectory& operator=(const InputStreamDirectory&) = delete;
  ~InputStreamDirectory();

  std::istream* GetInput(int id);
  bool Close();

 private:
  struct Impl;
  long long BytesLeft();
  bool ReadHeader();
  bool OpenPending();
  bool EndEntry();
  void Fail();

  std::istream& is_;
  std::unique_ptr<Impl> impl_;
};

// True when `is` is known to hold at least count * element_size more bytes (no overflow). Entry
// streams of an InputStreamDirectory always know; a stream that cannot tell gives false.
MVDA_EXPORT bool StreamHolds(std::istream& is, std::uint64_t count, std::size_t element_size);

#endif  // MVDA_PLATFORM_STREAM_DIRECTORY_H_
