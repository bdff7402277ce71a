#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "EventDispatcher.h"

namespace {

enum Ev : int { A = 1, B = 2 };
using Calls = std::vector<std::string>;

// Each handler records its name, then runs its action (which may change the handlers).
class DispatcherTest : public ::testing::Test {
 protected:
  struct Handler {
    DispatcherTest* test;
    std::string name;
    std::function<void(Handler*)> action;
  };
  static void run(Ev, const void*, void* user) {
    Handler* h = static_cast<Handler*>(user);
    h->test->calls.push_back(h->name);
    if (h->action) h->action(h);
  }
  Handler* make(const std::string& name, std::function<void(Handler*)> action = nullptr) {
    return &handlers_.emplace_back(Handler{this, name, std::move(action)});
  }
  Handler* reg(Ev id, Handler* h) { return d.regEventCallback(id, run, h), h; }
  void dereg(Ev id, Handler* h) { d.deregEventCallback(id, run, h); }

  EventDispatcher<Ev> d;
  Calls calls;
  std::deque<Handler> handlers_;  // never moves what it holds
};

TEST_F(DispatcherTest, HandlersOfOneIdRunInRegistrationOrderAndDuplicatesRunTwice) {
  Handler* h1 = make("h1");
  reg(B, make("other"));
  reg(A, h1), reg(A, make("h2")), reg(A, h1);
  d.dispatchEvent(A, nullptr);
  EXPECT_EQ((Calls{"h1", "h2", "h1"}), calls);
  dereg(A, h1);  // only the first match goes
  dereg(A, make("unknown"));  // no match: nothing happens
  calls.clear();
  d.dispatchEvent(A, nullptr);
  EXPECT_EQ((Calls{"h2", "h1"}), calls);
  EXPECT_EQ(2u, d.count(A));
}

// A handler that removes itself, removes the next one or adds one while a dispatch runs:
// the entry being run is freed after its call, a removed one is skipped, an added one
// runs later in the same dispatch.
TEST_F(DispatcherTest, HandlersChangedDuringADispatch) {
  Handler* next = make("next");
  reg(A, make("once", [this, next](Handler* h) {
        dereg(A, h);
        dereg(A, next);
        reg(A, make("late"));
      }));
  reg(A, next);
  reg(A, make("tail"));
  d.dispatchEvent(A, nullptr);
  d.dispatchEvent(A, nullptr);
  EXPECT_EQ((Calls{"once", "tail", "late", "tail", "late"}), calls);
  EXPECT_EQ(2u, d.count(A));
}

TEST_F(DispatcherTest, NestedDispatchOfTheSameIdLeavesTheOuterEntryToTheOuterCall) {
  // The outer handler dispatches A again and then removes itself: the entry must
  // survive the nested dispatch and be freed by the outer one, exactly once.
  int depth = 0;
  reg(A, make("self", [this, &depth](Handler* h) {
        if (++depth == 1) d.dispatchEvent(A, nullptr), dereg(A, h);
      }));
  reg(A, make("tail"));
  d.dispatchEvent(A, nullptr);
  EXPECT_EQ((Calls{"self", "self", "tail", "tail"}), calls);
  EXPECT_EQ(1u, d.count(A));
}

}  // namespace
