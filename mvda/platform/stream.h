// UStreamBase, UStreamableData and TwStreamError: how an object writes itself to and reads itself
// from a binary stream. Also the stream operators for nested objects and the one-pass helpers
// StreamOut, StreamIn and ReadNestedObject. The byte layout is in docs/stream-format.md.
#ifndef MVDA_PLATFORM_STREAM_H_
#define MVDA_PLATFORM_STREAM_H_

#include <mvda/mvda_export.h>
#include <mvda/platform/byte_io.h>
#include <mvda/platform/stream_directory.h>

#include <atomic>
#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>

// Thrown where a caller asked for an exception instead of a false result.
class MVDA_EXPORT TwStreamError : public std::runtime_error {
 public:
  TwStreamError();  // "Error when reading from stream"
  explicit TwStreamError(const std::string& message);
  TwStreamError(const TwStreamError&) = default;
  TwStreamError& operator=(const TwStreamError&) = default;
  ~TwStreamError() override;
};

// The class record of a streamable class: a short magic string and the version the class writes.
// Each class owns one, as the static member MyStreamableData. Float and double instantiations of
// a container share the record values, so a stream does not say which precision it holds.
class MVDA_EXPORT UStreamableData {
 public:
  static constexpr std::size_t kMaxMagicLength = 64;

  // Throws NCError for an empty magic or one longer than kMaxMagicLength bytes.
  UStreamableData(std::string magic, std::int32_t version);
  UStreamableData(const UStreamableData&) = delete;
  UStreamableData& operator=(const UStreamableData&) = delete;

  bool Write(std::ostream& os) const;
  // Reads a record and accepts it when its magic is ours, whatever its version: the class decides
  // which versions it reads. The version goes to *version when given and is kept for
  // GetUStreamVersionNumber. A short stream or another magic gives false and marks `is` failed.
  bool Check(std::istream& is, std::int32_t* version = nullptr);

  const std::string& GetMagic() const { return magic_; }
  std::int32_t GetMyUStreamVersionNumber() const { return version_; }
  // The version in the last record Check accepted (the class's own version before that). It is
  // shared by every reader of the class; a reader that may run beside another on a second thread
  // takes the version from Check's argument instead.
  std::int32_t GetUStreamVersionNumber() const { return stream_version_.load(); }

 private:
  std::string magic_;
  std::int32_t version_;
  std::atomic<std::int32_t> stream_version_;
};

// The base of every streamable object. Writing an object takes one pass over everything it
// streams: the first time an object is reached in a pass it writes itself, later times write
// nothing, so an object reached twice is written once (reading mirrors this). The pass flags are
// cleared by UStreamableReset; StreamOut and StreamIn clear them before and after a pass.
//
// The hooks. A class overrides UStreamableStartWrite/StartRead (the entry, called through
// operator<< and operator>>), UStreamableWrite/Read (its own directory) and
// UStreamableWriteBases/ReadBases (its streamable bases, by default the bare UStreamBase part,
// which has no bytes), and UStreamableReset when it streams other objects: its Reset calls the
// base version and resets each of them, so that a reset of the outermost object clears the pass.
// The write side is const: writing reads the object and touches only its pass flags. Do not let
// two threads stream the same object at once.
//
// How a container streams itself; NCDataVector<T> writes size, missing count and elements:
//
//   static UStreamableData MyStreamableData;  // defined in the .cpp as ("NCDV", 4)
//   static int GetUStreamVersionNumber() { return MyStreamableData.GetUStreamVersionNumber(); }
//   static int GetMyUStreamVersionNumber() { return MyStreamableData.GetMyUStreamVersionNumber(); }
//
//   bool UStreamableStartWrite(std::ostream& os) const override {
//     if (!MarkUStreamWritten(MyStreamableData)) return true;  // already written in this pass
//     return MyStreamableData.Write(os) && NCDataVector::UStreamableWriteBases(os) &&
//            NCDataVector::UStreamableWrite(os);
//   }
//   bool UStreamableWrite(std::ostream& os) const override {
//     OutputStreamDirectory dir(os, 3);
//     WriteFourBytes(std::int32_t(size_), dir.GetOutput(0));
//     WriteFourBytes(std::int32_t(missing_), dir.GetOutput(1));
//     if (size_ > 0) WriteArray(begin(), size_, sizeof(T), dir.GetOutput(2));
//     return dir.Close();
//   }
//   bool UStreamableStartRead(std::istream& is) override {
//     if (!MarkUStreamRead(MyStreamableData)) return true;  // already read in this pass
//     std::int32_t version = 0;
//     const bool ok = MyStreamableData.Check(is, &version) &&
//                     NCDataVector::UStreamableReadBases(is) && version == 4 &&
//                     NCDataVector::UStreamableRead(is);
//     if (!ok) Clear();  // a failed read leaves the vector empty
//     return ok;
//   }
//   bool UStreamableRead(std::istream& is) override {
//     InputStreamDirectory dir(is);
//     std::int32_t n = 0, missing = 0;
//     std::istream* in = dir.GetInput(0);
//     if (!in || !ReadFourBytes(n, *in) || n < 0) return false;
//     if (!(in = dir.GetInput(1)) || !ReadFourBytes(missing, *in) || missing < 0 || missing > n)
//       return false;
//     if (n > 0) {
//       in = dir.GetInput(2);
//       if (!in || !StreamHolds(*in, n, sizeof(T))) return false;  // before allocating
//       allocate n elements; if (!ReadArray(begin(), n, sizeof(T), *in)) return false;
//       (recount or check the missing elements)
//     }
//     return dir.Close();
//   }
//
// The own hooks are called by qualified name: a class derived from the vector overrides them, and
// the vector's part must still write the vector's directory. A matrix writes each row with
// `dir.GetOutput(3) << row` and reads it with ReadNestedObject(*in, row, throw_error); its
// UStreamableReset resets every row. A class whose streamable base writes the values (BoolVector on
// NCIntegralVector<bool,0>) calls the base's UStreamableStartWrite/StartRead from its
// WriteBases/ReadBases: the pass flags are keyed by the record that set them, so the base part is
// not mistaken for a second visit.
class MVDA_EXPORT UStreamBase {
 public:
  UStreamBase() noexcept = default;
  UStreamBase(const UStreamBase&) noexcept {}  // a copy starts outside any pass
  UStreamBase& operator=(const UStreamBase&) noexcept { return *this; }
  virtual ~UStreamBase();

  // The bare UStreamBase part: no bytes; true while the stream is good.
  virtual bool UStreamableStartWrite(std::ostream& os) const;
  virtual bool UStreamableStartRead(std::istream& is);
  virtual bool UStreamableWrite(std::ostream& os) const;
  virtual bool UStreamableRead(std::istream& is);
  virtual bool UStreamableWriteBases(std::ostream& os) const;  // UStreamBase::UStreamableStartWrite
  virtual bool UStreamableReadBases(std::istream& is);         // UStreamBase::UStreamableStartRead
  // Clears the pass flags, so the next pass writes (reads) the object again.
  virtual void UStreamableReset() const;

  bool IsUStreamWritten() const { return written_by_ != nullptr; }
  bool IsUStreamRead() const { return read_by_ != nullptr; }

 protected:
  // True when this object has not been written in this pass, or was marked by another record
  // (the class's streamable base writing its part); marks it written by `record`.
  bool MarkUStreamWritten(const UStreamableData& record) const;
  bool MarkUStreamRead(const UStreamableData& record);

 private:
  mutable const UStreamableData* written_by_ = nullptr;
  mutable const UStreamableData* read_by_ = nullptr;
};

// Nested objects: write or read one object in the current pass; a false hook marks the stream
// failed. Nothing happens on a stream that has already failed.
MVDA_EXPORT std::ostream& operator<<(std::ostream& os, const UStreamBase& object);
MVDA_EXPORT std::istream& operator>>(std::istream& is, UStreamBase& object);

// Reads one embedded object; when the stream goes bad, throws TwStreamError ("Error when reading
// from stream") if `throw_error`, otherwise returns false.
MVDA_EXPORT bool ReadNestedObject(std::istream& is, UStreamBase& object, bool throw_error = false);

// Writes a complete object (record, bases, directory) without looking at or setting its pass
// flags. For parts that copies of their owner share in memory (a matrix's rows, a model's
// matrices): a flag set while one copy is written would make another copy written in the same
// pass write them as nothing, and that copy could not be read back on its own.
template <class Object>
bool WriteWhole(const Object& object, std::ostream& os) {
  if (!(Object::MyStreamableData.Write(os) && object.Object::UStreamableWriteBases(os) &&
        object.Object::UStreamableWrite(os)))
    os.setstate(std::ios::failbit);
  return static_cast<bool>(os);
}

// One whole pass from the outermost object: clears the pass flags, streams the object, and clears
// them again (also when an exception leaves). True when the stream is good afterwards.
MVDA_EXPORT bool StreamOut(const UStreamBase& object, std::ostream& os);
MVDA_EXPORT bool StreamIn(UStreamBase& object, std::istream& is);

#endif  // MVDA_PLATFORM_STREAM_H_
