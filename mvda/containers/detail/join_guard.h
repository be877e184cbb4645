// JoinGuard: joins a group of boost threads when it goes out of scope.
#ifndef MVDA_CONTAINERS_DETAIL_JOIN_GUARD_H_
#define MVDA_CONTAINERS_DETAIL_JOIN_GUARD_H_

#include <boost/thread/thread.hpp>

namespace mvda::detail {

// Joins every thread started so far when it goes out of scope, on the normal path and when
// starting a later thread or anything else throws: no worker outlives the call that started it.
class JoinGuard {
 public:
  explicit JoinGuard(boost::thread_group& group) : group_(group) {}
  JoinGuard(const JoinGuard&) = delete;
  JoinGuard& operator=(const JoinGuard&) = delete;
  ~JoinGuard() { group_.join_all(); }

 private:
  boost::thread_group& group_;
};

}  // namespace mvda::detail

#endif  // MVDA_CONTAINERS_DETAIL_JOIN_GUARD_H_
