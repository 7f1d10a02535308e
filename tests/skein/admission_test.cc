#include "skein/admission.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/loop_test.h"

namespace skein {
namespace {

class AdmissionTest : public support::LoopTest {
 protected:
  /// Notes its name when it is evicted.
  class Peer : public Admission::Account {
   public:
    Peer(AdmissionTest& test, std::string name, std::uint32_t origin, Standing standing)
        : Account(origin, standing), test_(test), name_(std::move(name)) {}
    ~Peer() { test_.admission_.release(*this); }

   private:
    void evict(const LimitError&) override { test_.evicted_ += name_ + " "; }

    AdmissionTest& test_;
    std::string name_;
  };

  Peer& peer(std::string name, std::uint32_t origin, Standing standing, std::size_t bytes) {
    peers_.push_back(std::make_unique<Peer>(*this, std::move(name), origin, standing));
    admission_.hold(*peers_.back(), bytes);
    return *peers_.back();
  }

  std::string evicted_;
  Admission admission_{loop_, {.held_bytes = 1000, .disconnected_bytes = 500, .connections = 16}};
  std::vector<std::unique_ptr<Peer>> peers_;
};

TEST_F(AdmissionTest, GoneGoFirstThenTheHeaviestOriginAndTheAuthenticatedBeyondTwiceTheLimit) {
  peer("known", 1, Standing::AUTHENTICATED, 500);
  peer("honest", 1, Standing::UNAUTHENTICATED, 300);
  peer("a", 2, Standing::UNAUTHENTICATED, 210);
  peer("b", 2, Standing::UNAUTHENTICATED, 200);
  Peer& left = peer("left", 3, Standing::UNAUTHENTICATED, 10);
  admission_.set_standing(left, Standing::DISCONNECTED);
  admission_.set_standing(left, Standing::AUTHENTICATED);  // nobody comes back
  EXPECT_EQ(admission_.enforce(), "");
  EXPECT_EQ(evicted_, "left a ");
  EXPECT_EQ(admission_.held_bytes(), 1000U);
  evicted_.clear();
  peer("second", 4, Standing::AUTHENTICATED, 700);
  peer("newcomer", 6, Standing::UNAUTHENTICATED, 125);  // an eighth is reserved
  EXPECT_NE(admission_.enforce(), "") << "what is left is of those who may have it";
  EXPECT_EQ(evicted_, "honest b ");
  peer("larger", 5, Standing::AUTHENTICATED, 900);
  admission_.enforce();
  EXPECT_EQ(evicted_, "honest b larger ");
}

TEST_F(AdmissionTest, WhatTheGoneOfOneOriginLeaveBehindIsLimited) {
  peer("far", 1, Standing::DISCONNECTED, 400);
  peer("small", 2, Standing::DISCONNECTED, 200);
  peer("large", 2, Standing::DISCONNECTED, 301);
  EXPECT_TRUE(admission_.is_short());
  EXPECT_EQ(admission_.enforce(), "");
  EXPECT_EQ(evicted_, "large ");
}

TEST_F(AdmissionTest, ConnectionsMakeRoomInTheSameOrderAndSomeAreReserved) {
  const auto connect = [this](const std::string& name, std::uint32_t origin) -> Peer& {
    Peer& added = peer(name, origin, Standing::UNAUTHENTICATED, 0);
    admission_.add_connection(added);
    admission_.make_room(added);
    return added;
  };
  const auto disconnect = [this](Peer& gone) { admission_.remove_connection(gone); };
  connect("lone", 1);
  Peer& leaves = connect("leaves", 1);
  Peer& crowd = connect("crowd", 2);
  for (int i = 0; i < 10; ++i) connect("crowd too", 2);
  admission_.set_standing(leaves, Standing::DISCONNECTED);
  EXPECT_EQ(evicted_, "");
  Peer& last = connect("last", 3);
  EXPECT_EQ(evicted_, "") << "14 of 16, and two are reserved";
  disconnect(last);
  connect("second", 4);
  Peer& third = connect("third", 5);
  EXPECT_EQ(evicted_, "leaves ");
  disconnect(leaves);
  connect("fourth", 6);
  EXPECT_EQ(evicted_, "leaves crowd ") << "the oldest of those who have most";
  disconnect(crowd);
  admission_.set_standing(third, Standing::AUTHENTICATED);
  admission_.make_room(third);
  EXPECT_EQ(evicted_, "leaves crowd ") << "whoever need not show a key has the reserved ones";
  for (const auto& each : peers_) {
    if (each.get() != &last && each.get() != &leaves && each.get() != &crowd) disconnect(*each);
  }
}

}  // namespace
}  // namespace skein
