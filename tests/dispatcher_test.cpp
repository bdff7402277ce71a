#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "EventDispatcher.h"

namespace {

enum Ev : int { A = 1, B = 2 };

// Each handler is a small script: it records its name, then runs its action.
struct Handler;
struct Fixture {
  EventDispatcher<Ev> d;
  std::vector<std::string> calls;
};
struct Handler {
  Fixture* f;
  std::string name;
  std::function<void(Handler&)> action;
};

void run(Ev, const void*, void* user) {
  Handler& h = *static_cast<Handler*>(user);
  h.f->calls.push_back(h.name);
  if (h.action) h.action(h);
}

class DispatcherTest : public ::testing::Test, public Fixture {
 protected:
  Handler* make(const std::string& name, std::function<void(Handler&)> action = nullptr) {
    handlers_.push_back(std::make_unique<Handler>(Handler{this, name, std::move(action)}));
    return handlers_.back().get();
  }
  void reg(Ev id, Handler* h) { d.regEventCallback(id, run, h); }
  std::vector<std::unique_ptr<Handler>> handlers_;
};

TEST_F(DispatcherTest, HandlersOfOneIdRunInRegistrationOrderAndDuplicatesRunTwice) {
  Handler* h1 = make("h1");
  Handler* h2 = make("h2");
  reg(B, make("other"));
  reg(A, h1);
  reg(A, h2);
  reg(A, h1);
  d.dispatchEvent(A, nullptr);
  EXPECT_EQ((std::vector<std::string>{"h1", "h2", "h1"}), calls);
  // Only the first match goes.
  d.deregEventCallback(A, run, h1);
  calls.clear();
  d.dispatchEvent(A, nullptr);
  EXPECT_EQ((std::vector<std::string>{"h2", "h1"}), calls);
  d.deregEventCallback(A, run, make("unknown"));  // no match: nothing happens
  EXPECT_EQ(2u, d.count(A));
}

TEST_F(DispatcherTest, HandlerRemovingItselfIsFreedAfterItsCallAndNotCalledAgain) {
  Handler* once = make("once", [this](Handler& h) { d.deregEventCallback(A, run, &h); });
  reg(A, once);
  reg(A, make("after"));
  d.dispatchEvent(A, nullptr);
  EXPECT_EQ(1u, d.count(A));
  d.dispatchEvent(A, nullptr);
  EXPECT_EQ((std::vector<std::string>{"once", "after", "after"}), calls);
}

TEST_F(DispatcherTest, HandlerRegisteredDuringADispatchRunsLaterInTheSameDispatch) {
  Handler* late = make("late");
  reg(A, make("first", [this, late](Handler&) {
        if (d.count(A) < 3) reg(A, late);
      }));
  reg(A, make("second"));
  d.dispatchEvent(A, nullptr);
  EXPECT_EQ((std::vector<std::string>{"first", "second", "late"}), calls);
}

TEST_F(DispatcherTest, HandlerRemovingTheNextOneSkipsIt) {
  Handler* next = make("next");
  reg(A, make("first", [this, next](Handler&) { d.deregEventCallback(A, run, next); }));
  reg(A, next);
  reg(B, make("b"));
  d.dispatchEvent(A, nullptr);
  EXPECT_EQ(std::vector<std::string>{"first"}, calls);
  d.dispatchEvent(B, nullptr);
  EXPECT_EQ((std::vector<std::string>{"first", "b"}), calls);
}

TEST_F(DispatcherTest, NestedDispatchOfTheSameIdLeavesTheOuterEntryToTheOuterCall) {
  // The outer handler dispatches A again and then removes itself: the entry must
  // survive the nested dispatch and be freed by the outer one, exactly once.
  int depth = 0;
  Handler* self = make("self", [this, &depth](Handler& h) {
    if (++depth == 1) {
      d.dispatchEvent(A, nullptr);
      d.deregEventCallback(A, run, &h);
    }
  });
  reg(A, self);
  reg(A, make("tail"));
  d.dispatchEvent(A, nullptr);
  EXPECT_EQ((std::vector<std::string>{"self", "self", "tail", "tail"}), calls);
  EXPECT_EQ(1u, d.count(A));
}

}  // namespace
