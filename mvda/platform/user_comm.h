// UserComm: the one question the library may put to the user (whether the cluster analysis may
// store its distances on disk) and its information messages, both handed to the host through
// callbacks that the host installs.
#ifndef MVDA_PLATFORM_USER_COMM_H_
#define MVDA_PLATFORM_USER_COMM_H_

#include <mvda/mvda_export.h>

#include <functional>
#include <mutex>
#include <string>

// The library asks on the thread that called it and waits for the answer, so a host shows a modal
// dialog from its handler. Without a handler the question is answered kAnswerContinue (a batch
// run has nobody to ask and should go on) and information goes to stderr as "caption: text".
// Thread-safe: handlers may be replaced while another thread asks; a call uses the handler that
// was installed when it started.
class MVDA_EXPORT UserComm {
 public:
  // The kind of question: go on with something costly, or stop the computation.
  static constexpr int kContinueOrAbort = 3;
  // The answers to a kContinueOrAbort question.
  static constexpr int kAnswerContinue = 1;
  static constexpr int kAnswerAbort = 3;

  using QuestionHandler =
      std::function<int(int kind, const std::string& caption, const std::string& text)>;
  using InformationHandler =
      std::function<void(const std::string& caption, const std::string& text)>;

  UserComm(const UserComm&) = delete;
  UserComm& operator=(const UserComm&) = delete;

  // The process-wide instance.
  static UserComm& GetUserComm();

  // Returns the handler's answer.
  int Ask(int kind, const std::string& caption, const std::string& text);
  void Inform(const std::string& caption, const std::string& text);

  // An empty function restores the default behaviour.
  void SetQuestionHandler(QuestionHandler handler);
  void SetInformationHandler(InformationHandler handler);

 private:
  UserComm() = default;

  std::mutex mutex_;  // guards the two handlers, not the calls to them
  QuestionHandler question_;
  InformationHandler information_;
};

#endif  // MVDA_PLATFORM_USER_COMM_H_
