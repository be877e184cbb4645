// TwStreamSource, a store of named binary streams (the dendrogram cache), and
// TwFolderStreamSource, which keeps each stream as a file in one folder.
#ifndef MVDA_PLATFORM_STREAM_SOURCE_H_
#define MVDA_PLATFORM_STREAM_SOURCE_H_

#include <mvda/mvda_export.h>

#include <filesystem>
#include <iosfwd>
#include <memory>
#include <string>

// The host supplies the store; the library asks it for streams by name and releases them by
// destroying them.
class MVDA_EXPORT TwStreamSource {
 public:
  TwStreamSource() = default;
  TwStreamSource(const TwStreamSource&) = default;
  TwStreamSource& operator=(const TwStreamSource&) = default;
  virtual ~TwStreamSource();

  // Null when the store holds nothing of that name.
  virtual std::unique_ptr<std::istream> OpenInputStream(const std::string& name) = 0;
  // Null when the store cannot take a stream of that name now.
  virtual std::unique_ptr<std::ostream> OpenOutputStream(const std::string& name) = 0;
};

// Names are used as file names inside the folder, so a name must be a plain file name: not empty,
// no "..", no path separator, drive colon, control character or character Windows forbids
// (<>"|?*), and no trailing dot or space; any other name throws NCError. An output stream writes
// a temporary file that replaces the named file when the stream is destroyed in a good state (and
// is removed otherwise), so a reader never sees half a stream, even from a writer that died.
class MVDA_EXPORT TwFolderStreamSource : public TwStreamSource {
 public:
  // The folder is created when the first output stream is opened.
  explicit TwFolderStreamSource(std::filesystem::path folder);
  ~TwFolderStreamSource() override;

  std::unique_ptr<std::istream> OpenInputStream(const std::string& name) override;
  std::unique_ptr<std::ostream> OpenOutputStream(const std::string& name) override;
  const std::filesystem::path& GetFolder() const { return folder_; }

 private:
  std::filesystem::path folder_;
};

#endif  // MVDA_PLATFORM_STREAM_SOURCE_H_
