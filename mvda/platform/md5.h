// MD5: the message digest that names cached results (the dendrogram cache), over libmd.
#ifndef MVDA_PLATFORM_MD5_H_
#define MVDA_PLATFORM_MD5_H_

#include <mvda/mvda_export.h>

#include <cstddef>
#include <memory>
#include <string>

// Feed bytes with Update, in as many pieces as convenient, then take the digest once with
// HexDigest. MD5 serves here as a fingerprint of the data, not as a security measure: a cache name
// only has to differ when the data differ.
class MVDA_EXPORT MD5 {
 public:
  MD5();
  MD5(const MD5& other);
  MD5& operator=(const MD5& other);
  ~MD5();

  void Update(const void* data, std::size_t count);
  void Update(const std::string& text) { Update(text.data(), text.size()); }
  // The 32 lower-case hexadecimal digits of the digest of everything fed so far. The digest is
  // taken once: a later Update or HexDigest throws NCError.
  std::string HexDigest();

 private:
  struct Context;
  std::unique_ptr<Context> context_;
  bool finished_ = false;
};

#endif  // MVDA_PLATFORM_MD5_H_
