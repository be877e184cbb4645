// NCError: the exception of the library's numerical code.
#ifndef MVDA_PLATFORM_ERROR_H_
#define MVDA_PLATFORM_ERROR_H_

#include <mvda/mvda_export.h>

#include <exception>
#include <string>

// A message for the user and a level that tells the host how the computation ended:
// 0 a user stop seen after an iteration, 1 a numerical failure, 2 a stop requested through
// NCProgress::SetValue. Hosts show the message as it stands.
class MVDA_EXPORT NCError : public std::exception {
 public:
  enum Level { kUserStop = 0, kNumerical = 1, kStopRequested = 2 };

  explicit NCError(std::string message, int level = kNumerical);
  NCError(const NCError&) = default;
  NCError& operator=(const NCError&) = default;
  ~NCError() override;

  const char* what() const noexcept override;
  const std::string& GetMessage() const noexcept { return message_; }
  int GetLevel() const noexcept { return level_; }

 private:
  std::string message_;
  int level_;
};

#endif  // MVDA_PLATFORM_ERROR_H_
