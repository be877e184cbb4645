// OneWayBuf: a stream buffer that reads front to back and cannot seek or tell its length, like a
// pipe, for the tests of readers that must not rely on seeking.
#ifndef MVDA_TESTS_SUPPORT_ONE_WAY_BUF_H_
#define MVDA_TESTS_SUPPORT_ONE_WAY_BUF_H_

#include <streambuf>
#include <string>
#include <utility>

class OneWayBuf : public std::streambuf {
 public:
  explicit OneWayBuf(std::string bytes) : bytes_(std::move(bytes)) {
    setg(bytes_.data(), bytes_.data(), bytes_.data() + bytes_.size());
  }

 private:
  std::string bytes_;
};

#endif  // MVDA_TESTS_SUPPORT_ONE_WAY_BUF_H_
