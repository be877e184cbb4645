#include <mvda/platform/byte_io.h>
#include <mvda/platform/error.h>
#include <mvda/platform/stream_directory.h>

#include <algorithm>
#include <cstring>
#include <istream>
#include <limits>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

namespace {

constexpr std::uint32_t kMaxEntryId = 0x7fffffffu;
constexpr long long kEntryHeaderBytes = 12;  // four-byte id, eight-byte length
constexpr std::size_t kLengthBytes = 8;
constexpr std::size_t kNoEntry = static_cast<std::size_t>(-1);
// Skipping and buffering go in steps of this size, so that a length read from a stream that
// cannot tell its size never turns into one large allocation.
constexpr std::size_t kStepBytes = 64 * 1024;

const std::streambuf::pos_type kBadPos = std::streambuf::pos_type(std::streambuf::off_type(-1));

// The bytes of one outermost write, gathered in blocks that grow from 4 KiB to 1 MiB: a small
// object costs a small block, and a large one is never copied to grow its buffer.
class ByteRope {
 public:
  std::size_t size() const { return size_; }

  void Append(const char* s, std::size_t n) {
    while (n > 0) {
      if (blocks_.empty() || blocks_.back().used == blocks_.back().capacity) {
        const std::size_t capacity =
            blocks_.empty() ? kFirstBlock : std::min(2 * blocks_.back().capacity, kLastBlock);
        blocks_.push_back({std::unique_ptr<char[]>(new char[capacity]), capacity, 0});
      }
      Block& last = blocks_.back();
      const std::size_t take = std::min(n, last.capacity - last.used);
      std::memcpy(last.data.get() + last.used, s, take);
      last.used += take;
      size_ += take;
      s += take;
      n -= take;
    }
  }
  void AppendZeros(std::size_t n) {
    const char zeros[16] = {};
    Append(zeros, n);
  }
  // Little-endian bytes of `value` into bytes at .. at+width-1; false when that is out of range.
  // Patches land near the end, so the blocks are searched from the back.
  bool Patch(std::size_t at, std::uint64_t value, std::size_t width) {
    if (at > size_ || size_ - at < width) return false;
    std::size_t block = blocks_.size() - 1, start = size_ - blocks_[block].used;
    for (std::size_t i = width; i-- > 0;) {
      while (at + i < start) start -= blocks_[--block].used;
      blocks_[block].data[at + i - start] = static_cast<char>((value >> (8 * i)) & 0xff);
    }
    return true;
  }
  bool WriteTo(std::ostream& os) const {
    for (const Block& b : blocks_) WriteBytes(b.data.get(), b.used, os);
    return static_cast<bool>(os);
  }

 private:
  static constexpr std::size_t kFirstBlock = 4096, kLastBlock = 1 << 20;
  struct Block {
    std::unique_ptr<char[]> data;
    std::size_t capacity, used;
  };
  std::vector<Block> blocks_;
  std::size_t size_ = 0;
};

// Appends whatever is written to a rope. Every directory of one outermost write appends to the
// same rope; the outermost one writes it out.
class SinkBuf : public std::streambuf {
 public:
  SinkBuf(ByteRope* bytes, int depth) : bytes_(bytes), depth_(depth) {}
  ByteRope* bytes() const { return bytes_; }
  int depth() const { return depth_; }

 protected:
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    bytes_->Append(s, static_cast<std::size_t>(n));
    return n;
  }
  int_type overflow(int_type c) override {
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
      const char byte = traits_type::to_char_type(c);
      bytes_->Append(&byte, 1);
    }
    return traits_type::not_eof(c);
  }

 private:
  ByteRope* bytes_;
  int depth_;
};

// A read-only view of bytes held in memory, seekable within them.
class MemoryBuf : public std::streambuf {
 public:
  void Reset(std::vector<char>& bytes) {
    setg(bytes.data(), bytes.data(), bytes.data() + bytes.size());
  }

 protected:
  pos_type seekoff(off_type off, std::ios_base::seekdir dir,
                   std::ios_base::openmode which) override {
    if (which & std::ios_base::out) return kBadPos;
    const off_type size = egptr() - eback();
    const off_type base = dir == std::ios_base::beg   ? 0
                          : dir == std::ios_base::cur ? gptr() - eback()
                                                      : size;
    if (off < -base || off > size - base) return kBadPos;
    setg(eback(), eback() + base + off, egptr());
    return pos_type(base + off);
  }
  pos_type seekpos(pos_type pos, std::ios_base::openmode which) override {
    return seekoff(off_type(pos), std::ios_base::beg, which);
  }
};

// The bytes of one entry: reads from `source` and reports the end of input after `length` bytes.
// Positions are relative to the start of the entry. Seeking only moves a logical position; the
// source is moved when bytes are read (or the rest is skipped), so StreamBytesLeft, which seeks to
// the end and back, costs nothing and works even on a source that cannot seek. The end can be
// sought only when the source was known to hold the whole entry (`verified`).
class EntryBuf : public std::streambuf {
 public:
  explicit EntryBuf(int depth) : depth_(depth) {}
  int depth() const { return depth_; }

  void Open(std::streambuf* source, long long length, bool verified) {
    source_ = source;
    length_ = length;
    verified_ = verified;
    pos_ = consumed_ = 0;
    broken_ = source == nullptr;
    seekable_ = !broken_ && source->pubseekoff(0, std::ios_base::cur, std::ios_base::in) != kBadPos;
  }
  // Bytes left in the entry, or -1 when the source was not known to hold them all.
  long long Remaining() const { return verified_ && !broken_ ? length_ - pos_ : -1; }
  // Moves the source to the end of the entry; false when the source ends first.
  bool SkipRest() {
    pos_ = length_;
    return Sync();
  }

 protected:
  int_type underflow() override {
    if (pos_ >= length_ || !Sync()) return traits_type::eof();
    return source_->sgetc();
  }
  int_type uflow() override {
    if (pos_ >= length_ || !Sync()) return traits_type::eof();
    const int_type c = source_->sbumpc();
    if (!traits_type::eq_int_type(c, traits_type::eof())) ++pos_, ++consumed_;
    return c;
  }
  std::streamsize xsgetn(char* s, std::streamsize n) override {
    const long long want = std::min<long long>(n, length_ - pos_);
    if (want <= 0 || !Sync()) return 0;
    const std::streamsize got = source_->sgetn(s, static_cast<std::streamsize>(want));
    pos_ += got;
    consumed_ += got;
    return got;
  }
  pos_type seekoff(off_type off, std::ios_base::seekdir dir,
                   std::ios_base::openmode which) override {
    if ((which & std::ios_base::out) || broken_) return kBadPos;
    if (dir == std::ios_base::end && !verified_) return kBadPos;
    const long long base = dir == std::ios_base::beg   ? 0
                           : dir == std::ios_base::cur ? pos_
                                                       : length_;
    if (off < -base || off > length_ - base) return kBadPos;
    if (base + off < consumed_ && !seekable_) return kBadPos;
    pos_ = base + off;
    return pos_type(off_type(pos_));
  }
  pos_type seekpos(pos_type pos, std::ios_base::openmode which) override {
    return seekoff(off_type(pos), std::ios_base::beg, which);
  }

 private:
  // Brings the source to the logical position.
  bool Sync() {
    if (broken_) return false;
    if (pos_ == consumed_) return true;
    if (seekable_) {
      broken_ =
          source_->pubseekoff(pos_ - consumed_, std::ios_base::cur, std::ios_base::in) == kBadPos;
      consumed_ = pos_;
      return !broken_;
    }
    char scratch[4096];
    while (consumed_ < pos_) {
      const std::streamsize n = static_cast<std::streamsize>(
          std::min<long long>(pos_ - consumed_, static_cast<long long>(sizeof scratch)));
      const std::streamsize got = source_->sgetn(scratch, n);
      consumed_ += got;
      if (got < n) return !(broken_ = true);
    }
    return true;
  }

  std::streambuf* source_ = nullptr;
  long long length_ = 0, pos_ = 0, consumed_ = 0;
  bool verified_ = false, seekable_ = false, broken_ = true;
  int depth_;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Writing

struct OutputStreamDirectory::Impl {
  Impl(ByteRope* shared, int depth)
      : bytes(shared ? shared : &own), buffer(bytes, depth), entry(&buffer) {}
  ByteRope own;  // used by an outermost directory only
  ByteRope* bytes;
  SinkBuf buffer;
  std::ostream entry;
  std::size_t count_at = 0;
  std::size_t length_at = kNoEntry;  // where the length of the entry in progress goes
  std::uint32_t present = 0;
  int open_id = -1;
  bool closed = false;

  void EndEntry() {
    if (length_at == kNoEntry) return;
    const std::size_t start = length_at + kLengthBytes;
    if (start > bytes->size() || !bytes->Patch(length_at, bytes->size() - start, kLengthBytes))
      entry.setstate(std::ios::badbit);
    length_at = kNoEntry;
  }
};

OutputStreamDirectory::OutputStreamDirectory(std::ostream& os, int entry_count)
    : os_(os), entry_count_(entry_count) {
  if (entry_count < 0)
    throw NCError("OutputStreamDirectory: negative entry count " + std::to_string(entry_count));
  auto* parent = dynamic_cast<SinkBuf*>(os.rdbuf());
  const int depth = parent ? parent->depth() + 1 : 1;
  if (depth > kMaxStreamDirectoryDepth)
    throw NCError("OutputStreamDirectory: directories nested more than " +
                  std::to_string(kMaxStreamDirectoryDepth) + " levels deep");
  impl_ = std::make_unique<Impl>(parent ? parent->bytes() : nullptr, depth);
  impl_->count_at = impl_->bytes->size();
  impl_->bytes->AppendZeros(4);
  if (!os) impl_->entry.setstate(std::ios::failbit);
}

OutputStreamDirectory::~OutputStreamDirectory() {
  try {
    Close();
  } catch (...) {  // a stream that throws on failure; nothing more can be done here
  }
}

std::ostream& OutputStreamDirectory::GetOutput(int id) {
  const char* where = "OutputStreamDirectory::GetOutput: ";
  if (impl_->closed) throw NCError(std::string(where) + "the directory is already closed");
  if (id < 0 || id >= entry_count_)
    throw NCError(std::string(where) + "entry id " + std::to_string(id) + " outside 0.." +
                  std::to_string(entry_count_ - 1));
  if (id == impl_->open_id) return impl_->entry;
  if (id < impl_->open_id)
    throw NCError(std::string(where) + "entry " + std::to_string(id) + " after entry " +
                  std::to_string(impl_->open_id) + " (entries go in ascending order)");
  impl_->EndEntry();
  ByteRope& bytes = *impl_->bytes;
  const std::size_t at = bytes.size();
  bytes.AppendZeros(4 + kLengthBytes);
  bytes.Patch(at, static_cast<std::uint32_t>(id), 4);
  impl_->length_at = at + 4;
  impl_->open_id = id;
  ++impl_->present;
  return impl_->entry;
}

bool OutputStreamDirectory::Close() {
  if (impl_->closed) return static_cast<bool>(os_);
  impl_->closed = true;
  impl_->EndEntry();
  if (!impl_->bytes->Patch(impl_->count_at, impl_->present, 4))
    impl_->entry.setstate(std::ios::badbit);
  if (impl_->bytes == &impl_->own) {
    impl_->own.WriteTo(os_);
    impl_->own = ByteRope();
  }
  if (impl_->entry.fail()) os_.setstate(std::ios::failbit);
  return static_cast<bool>(os_);
}

// ---------------------------------------------------------------------------------------------
// Reading

struct InputStreamDirectory::Impl {
  Impl(EntryBuf* parent_entry, int depth) : parent(parent_entry), buffer(depth), entry(&buffer) {}
  EntryBuf* parent;  // the entry this directory lies in, when it is nested
  EntryBuf buffer;
  std::istream entry;
  MemoryBuf memory_view;
  std::vector<char> memory;  // an entry read ahead from a stream that cannot tell its length
  std::uint32_t unread = 0;  // entry headers not read yet
  bool pending = false;      // a header read whose entry comes later than the id asked for
  std::uint32_t pending_id = 0;
  long long pending_length = 0;
  bool pending_verified = false;
  long long last_id = -1;  // ids in the stream must ascend
  int asked = -1;
  int open_id = -1;
  bool failed = false;
  bool closed = false;
};

InputStreamDirectory::InputStreamDirectory(std::istream& is) : is_(is) {
  auto* parent = dynamic_cast<EntryBuf*>(is.rdbuf());
  const int depth = parent ? parent->depth() + 1 : 1;
  impl_ = std::make_unique<Impl>(parent, depth);
  std::uint32_t count = 0;
  if (depth > kMaxStreamDirectoryDepth || !ReadFourBytes(count, is)) {
    Fail();
    return;
  }
  const long long left = BytesLeft();
  if (left >= 0 && count > left / kEntryHeaderBytes)
    Fail();
  else
    impl_->unread = count;
}

InputStreamDirectory::~InputStreamDirectory() {
  try {
    Close();
  } catch (...) {  // a stream that throws on failure; nothing more can be done here
  }
}

void InputStreamDirectory::Fail() {
  impl_->failed = true;
  impl_->pending = false;
  impl_->open_id = -1;
  is_.setstate(std::ios::failbit);
}

// What is left of `is_`: asked of the entry around this directory directly, which spares the
// seeks of StreamBytesLeft on every header of every row of a matrix.
long long InputStreamDirectory::BytesLeft() {
  if (impl_->parent && is_.rdbuf() == impl_->parent) return is_ ? impl_->parent->Remaining() : -1;
  return StreamBytesLeft(is_);
}

// Reads the next entry header into `pending`; false at the end of the directory or on damage.
bool InputStreamDirectory::ReadHeader() {
  if (impl_->failed || impl_->unread == 0) return false;
  --impl_->unread;
  unsigned char header[kEntryHeaderBytes];
  if (!ReadBytes(header, sizeof header, is_)) {
    Fail();
    return false;
  }
  std::uint64_t length = 0;
  for (int i = 11; i >= 4; --i) length = (length << 8) | header[i];
  const std::uint32_t id = header[0] | (header[1] << 8) | (header[2] << 16) |
                           (static_cast<std::uint32_t>(header[3]) << 24);
  const long long left = BytesLeft();
  if (id > kMaxEntryId || static_cast<long long>(id) <= impl_->last_id ||
      length > static_cast<std::uint64_t>(std::numeric_limits<long long>::max()) ||
      (left >= 0 && length > static_cast<std::uint64_t>(left))) {
    Fail();
    return false;
  }
  impl_->last_id = id;
  impl_->pending = true;
  impl_->pending_id = id;
  impl_->pending_length = static_cast<long long>(length);
  impl_->pending_verified = left >= 0;
  return true;
}

// Hands the pending entry to the entry stream. An entry of unknown extent is read into memory
// first, as far as its bytes arrive, so that readers can trust StreamBytesLeft on it.
bool InputStreamDirectory::OpenPending() {
  Impl& d = *impl_;
  d.pending = false;
  d.entry.clear();
  if (d.pending_verified) {
    d.buffer.Open(is_.rdbuf(), d.pending_length, true);
    return true;
  }
  d.memory.clear();
  for (long long left = d.pending_length; left > 0;) {
    const std::size_t n = static_cast<std::size_t>(std::min<long long>(left, kStepBytes));
    const std::size_t at = d.memory.size();
    d.memory.resize(at + n);
    if (!ReadBytes(d.memory.data() + at, n, is_)) return false;
    left -= static_cast<long long>(n);
  }
  d.memory_view.Reset(d.memory);
  d.buffer.Open(&d.memory_view, d.pending_length, true);
  return true;
}

// Ends the entry handed out last: a failed read inside it fails the directory, and the rest of
// it is skipped.
bool InputStreamDirectory::EndEntry() {
  if (impl_->open_id < 0) return !impl_->failed;
  impl_->open_id = -1;
  if (impl_->entry.fail() || !impl_->buffer.SkipRest()) Fail();
  return !impl_->failed;
}

std::istream* InputStreamDirectory::GetInput(int id) {
  const char* where = "InputStreamDirectory::GetInput: ";
  if (impl_->closed) throw NCError(std::string(where) + "the directory is already closed");
  if (id < 0) throw NCError(std::string(where) + "negative entry id " + std::to_string(id));
  if (id == impl_->open_id) return &impl_->entry;
  if (id < impl_->asked)
    throw NCError(std::string(where) + "entry " + std::to_string(id) + " after entry " +
                  std::to_string(impl_->asked) + " (entries go in ascending order)");
  impl_->asked = id;
  if (!EndEntry()) return nullptr;
  while (impl_->pending || ReadHeader()) {
    if (impl_->pending_id > static_cast<std::uint32_t>(id)) return nullptr;  // not in the stream
    const bool wanted = impl_->pending_id == static_cast<std::uint32_t>(id);
    if (!wanted) {  // unknown to this reader, or not asked for
      impl_->pending = false;
      impl_->buffer.Open(is_.rdbuf(), impl_->pending_length, impl_->pending_verified);
      if (!impl_->buffer.SkipRest()) Fail();
      continue;
    }
    if (!OpenPending()) {
      Fail();
      return nullptr;
    }
    impl_->open_id = id;
    return &impl_->entry;
  }
  return nullptr;
}

bool InputStreamDirectory::Close() {
  if (impl_->closed) return !impl_->failed && static_cast<bool>(is_);
  impl_->closed = true;
  EndEntry();
  while (impl_->pending || ReadHeader()) {
    impl_->pending = false;
    impl_->buffer.Open(is_.rdbuf(), impl_->pending_length, impl_->pending_verified);
    if (!impl_->buffer.SkipRest()) Fail();
  }
  std::vector<char>().swap(impl_->memory);
  return !impl_->failed && static_cast<bool>(is_);
}

bool StreamHolds(std::istream& is, std::uint64_t count, std::size_t element_size) {
  const long long left = StreamBytesLeft(is);
  if (left < 0) return false;
  return element_size == 0 || count <= static_cast<std::uint64_t>(left) / element_size;
}
