// The engine's conclusions about a device, from answered and unanswered requests: no more than the
// answers prove.
#include "engine/evidence.h"

#include <gtest/gtest.h>

#include <vector>

namespace tavo::test {
namespace {

using B = Bearing;

// One request, and what came of it.
struct Event {
  Bearing bearing;
  bool answered = true;
};

struct Story {
  const char* name;
  bool behindTunnel;
  std::vector<Event> events;
  DeviceCondition device;
  TunnelCondition tunnel = TunnelCondition::NotAsked;
};

Evidence Tell(bool behindTunnel, const std::vector<Event>& events) {
  Evidence evidence;
  evidence.Begin(behindTunnel);
  for (const auto& [bearing, answered] : events) {
    evidence.Sent(bearing);
    answered ? evidence.Answered(bearing) : evidence.Unanswered(bearing);
  }
  return evidence;
}

const std::vector<Event> kErased{{B::CallsBootloader}, {B::Bootloader}, {B::Erases}};

TEST(Evidence, ProvesNoMoreThanTheAnswersOnTheRoadToTheDevice) {
  using D = DeviceCondition;
  using T = TunnelCondition;
  // clang-format off
  const Story stories[] = {
      {"nothing asked", false, {}, D::Untouched},
      {"an id", false, {{B::Identity}}, D::OldApplicationRuns},
      {"an id that a master may report", true, {{B::Identity}}, D::Untouched},
      {"call unanswered", false, {{B::CallsBootloader, false}}, D::Unknown},
      {"call answered", false, {{B::CallsBootloader}}, D::BootloaderFlashIntact},
      {"bootloader found", false, {{B::Bootloader}}, D::BootloaderAsFound},
      {"erased", false, kErased, D::BootloaderFlashErased},
      {"erase unanswered, bootloader responds", false, {{B::CallsBootloader}, {B::Erases, false}, {B::Bootloader}}, D::Unknown},
      {"silence after the bootloader agreed to start", false, {{B::CallsBootloader}, {B::StartsApplication}}, D::Unknown},
      {"through a tunnel", true, {{B::OpensTunnel}, {B::CallsBootloader}}, D::BootloaderFlashIntact, T::LeftOpen},
      {"an answer after the tunnel closed is the master's", true,
       {{B::OpensTunnel}, {B::CallsBootloader}, {B::ClosesTunnel}, {B::Application}}, D::BootloaderFlashIntact, T::Closed},
      {"and after the request to close it, answered or not", true,
       {{B::OpensTunnel}, {B::CallsBootloader}, {B::ClosesTunnel, false}, {B::Application}}, D::BootloaderFlashIntact, T::Unknown},
  };
  // clang-format on
  for (const Story& story : stories) {
    const DeviceEvidence evidence = Tell(story.behindTunnel, story.events).Conclude();
    EXPECT_EQ(evidence.device, story.device) << story.name;
    EXPECT_EQ(evidence.tunnel, story.tunnel) << story.name;
  }
}

TEST(Evidence, AWrittenFlashCountsAsVerifiedOnlyWhenItsChecksumsWereEqual) {
  Evidence written = Tell(false, kErased);
  written.LastBlockSent();
  EXPECT_EQ(written.Conclude().device, DeviceCondition::Unknown);
  written.Verified(false);
  EXPECT_EQ(written.Conclude().device, DeviceCondition::BootloaderFlashErased);
  written.Verified(true);
  EXPECT_EQ(written.Conclude().device, DeviceCondition::BootloaderFlashIntact);
}

TEST(Evidence, SuccessSaysWhatWasVerifiedAndWhetherTheModulesAreKnown) {
  Evidence unverified = Tell(false, kErased);
  unverified.LastBlockSent();
  unverified.Succeeded();
  EXPECT_EQ(unverified.Conclude().device, DeviceCondition::UpdatedNotVerified);

  for (const bool modulesAnswered : {true, false}) {
    Evidence verified = Tell(false, kErased);
    verified.Verified(true);
    verified.Sent(B::Modules);
    modulesAnswered ? verified.Answered(B::Modules) : verified.Unanswered(B::Modules);
    verified.Succeeded();
    EXPECT_EQ(verified.Conclude().device, modulesAnswered ? DeviceCondition::UpdatedAndVerified
                                                          : DeviceCondition::RunsIncomplete);
  }
}

TEST(Evidence, AReportedTunnelIsBelieved) {
  Evidence evidence;
  evidence.Begin(true);
  evidence.TunnelReported(true);
  EXPECT_EQ(evidence.Conclude().tunnel, TunnelCondition::LeftOpen);
  evidence.TunnelReported(false);
  EXPECT_EQ(evidence.Conclude().tunnel, TunnelCondition::Closed);
}

}  // namespace
}  // namespace tavo::test
