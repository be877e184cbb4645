#include <mvda/platform/user_comm.h>

#include <cstdio>
#include <utility>

UserComm& UserComm::GetUserComm() {
  static UserComm instance;
  return instance;
}

int UserComm::Ask(int kind, const std::string& caption, const std::string& text) {
  QuestionHandler handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    handler = question_;
  }
  return handler ? handler(kind, caption, text) : kAnswerContinue;
}

void UserComm::Inform(const std::string& caption, const std::string& text) {
  InformationHandler handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    handler = information_;
  }
  if (handler)
    handler(caption, text);
  else
    std::fprintf(stderr, "%s: %s\n", caption.c_str(), text.c_str());
}

void UserComm::SetQuestionHandler(QuestionHandler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  question_ = std::move(handler);
}

void UserComm::SetInformationHandler(InformationHandler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  information_ = std::move(handler);
}
