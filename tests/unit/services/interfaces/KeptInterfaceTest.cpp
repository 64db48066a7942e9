#include <gtest/gtest.h>

#include "lumen/services/interfaces/InterfaceIds.h"
#include "platform/Keys.h"
#include "platform/wire/Interfaces.h"
#include "services/interfaces/Router.h"

namespace lumen {
namespace {

using KeptInterface = Router;
using Lines = std::vector<std::string>;

constexpr const char* refused = "error=16646153 text=";

/// What is stored of a kept name.
lm::message kept(const std::string& name, uint32_t id, uint32_t role) {
  lm::message m;
  m.insert_u32(lm::key::objectId, id);
  m.insert_string(lm::interfaces::key::name, name);
  m.insert_u32(lm::interfaces::key::role, role);
  return m;
}

// Promise: Keeping a name gives it an id, also while there is no link of that name.
TEST_F(KeptInterface, GivesAnIdToALinkThatDoesNotExistYet) {
  starts();
  EXPECT_EQ(text(administratorKeeps("wan0", 1)), "id=1");
  EXPECT_EQ(notified(), (Lines{"interface " + record(1, 0, "wan0", "disabled=1 running=0", 0),
                               stateOf(record(1, 0, "wan0", "disabled=1 running=0", 0))}));
  kernel.appears("wan0");
  EXPECT_EQ(lists(), (Lines{record(1, 2, "wan0", "disabled=0 running=1")}));
}

// Promise: Keeping the name of a link that is there keeps its id and notifies no subscriber.
TEST_F(KeptInterface, KeepsTheIdOfALinkThatIsThereWithoutANotification) {
  kernel.appears("br-lan");
  kernel.appears("wan0");
  starts();
  EXPECT_EQ(text(administratorKeeps("wan0", 1)), "id=2");
  EXPECT_EQ(notified(), Lines{});
}

// Promise: Keeping a kept name changes its role and nothing else.
TEST_F(KeptInterface, ChangesTheRoleWhenKeptAgainAndKeepsTheId) {
  starts();
  EXPECT_EQ(text(administratorKeeps("wan0", 1)), "id=1");
  EXPECT_EQ(text(administratorKeeps("wan0", 2)), "id=1");
  EXPECT_EQ(recordTexts(asks(administrator, lm::cmd::list)),
            (Lines{record(1, 0, "wan0", "disabled=1 running=0", 0) + " role=2"}));
}

TEST_F(KeptInterface, IsKnownAsInternalBeforeAnyServiceHearsOfIt) {
  using Names = std::set<std::string>;
  starts();
  EXPECT_EQ(text(administratorKeeps("wan0", 1)), "id=1");
  EXPECT_EQ(keptNames.internal, Names{});
  notifier.onNotify = [this] { EXPECT_EQ(keptNames.internal, Names{"br-lan"}); };
  EXPECT_EQ(text(administratorKeeps("br-lan", 2)), "id=2");
  notifier.onNotify = nullptr;
  restarts();
  EXPECT_EQ(keptNames.internal, Names{"br-lan"});
  EXPECT_EQ(text(administratorKeeps("wan0", 2)), "id=1");
  EXPECT_EQ(keptNames.internal, (Names{"br-lan", "wan0"}));
  EXPECT_EQ(text(administratorForgets("br-lan")), "");
  EXPECT_EQ(keptNames.internal, Names{"wan0"});
}

// Promise: The role of an interface is not shown to a service that may neither read nor open ports.
TEST_F(KeptInterface, ShowsTheRoleToAdministratorsOnly) {
  kernel.appears("br-lan");
  kernel.appears("other");
  starts();
  EXPECT_EQ(text(administratorKeeps("br-lan", 2)), "id=1");
  EXPECT_EQ(recordTexts(asks(administrator, lm::cmd::readAll)),
            (Lines{record(1, 2, "br-lan", "disabled=0 running=1") + " role=2",
                   record(2, 3, "other", "disabled=0 running=1")}));
  EXPECT_EQ(lists()[0], record(1, 2, "br-lan", "disabled=0 running=1"));
  EXPECT_EQ(text(asks(administrator, lm::cmd::readObject, object(1))),
            record(1, 2, "br-lan", "disabled=0 running=1") +
                " rxbytes=0 txbytes=0 rxpackets=0 txpackets=0 role=2");
}

// Promise: A kept name has its id and its role again after a restart.
TEST_F(KeptInterface, SurvivesARestartWithItsIdAndRole) {
  kernel.appears("a");
  kernel.appears("b");
  kernel.appears("wan0");
  starts();
  EXPECT_EQ(text(administratorKeeps("wan0", 1)), "id=3");
  EXPECT_EQ(text(administratorKeeps("ppp0", 2)), "id=4");
  kernel.leaves("a");
  restarts();
  EXPECT_EQ(recordTexts(asks(administrator, lm::cmd::list)),
            (Lines{record(3, 4, "wan0", "disabled=0 running=1") + " role=1",
                   record(4, 0, "ppp0", "disabled=1 running=0", 0) + " role=2",
                   record(5, 3, "b", "disabled=0 running=1")}));
}

// Promise: A forgotten name leaves at once when its link is away, else with its link.
TEST_F(KeptInterface, LeavesAtOnceWhenForgottenWhileItsLinkIsAway) {
  starts();
  EXPECT_EQ(text(administratorKeeps("ppp0", 1)), "id=1");
  (void)notified();
  EXPECT_EQ(text(administratorForgets("ppp0")), "");
  EXPECT_EQ(notified(), (Lines{"interface " + record(1, 0, "ppp0", "disabled=1 running=0", 0, 128),
                               stateOf(record(1, 0, "ppp0", "disabled=1 running=0", 0, 128))}));
  EXPECT_EQ(lists(), Lines{});
  restarts();
  EXPECT_EQ(lists(), Lines{});
}

TEST_F(KeptInterface, StaysUntilItsLinkLeavesWhenForgottenWhileItIsThere) {
  kernel.appears("wan0");
  starts();
  EXPECT_EQ(text(administratorKeeps("wan0", 1)), "id=1");
  EXPECT_EQ(text(administratorForgets("wan0")), "");
  EXPECT_EQ(notified(), Lines{});
  EXPECT_EQ(lists().size(), 1U);
  kernel.leaves("wan0");
  EXPECT_EQ(lists(), Lines{});
}

// Promise: A forgotten name gets the same id when it comes back in this run.
TEST_F(KeptInterface, KeepsTheIdForTheNameAfterItWasForgotten) {
  starts();
  EXPECT_EQ(text(administratorKeeps("ppp0", 1)), "id=1");
  EXPECT_EQ(text(administratorForgets("ppp0")), "");
  kernel.appears("eth0");
  kernel.appears("ppp0");
  EXPECT_EQ(idOf("eth0"), 2U);
  EXPECT_EQ(idOf("ppp0"), 1U);
}

// Promise: Forgetting what is not kept is refused: `the name is not kept`.
TEST_F(KeptInterface, IsRefusedToBeForgottenWhenItIsNotKept) {
  kernel.appears("wan0");
  starts();
  EXPECT_EQ(text(administratorForgets("wan0")), std::string(refused) + "the name is not kept");
}

// Promise [link-role]: A name that the kernel would not take, and `lo`, are refused with the name,
// `bad interface name 'a b'`, another role than 1 and 2 with `bad role`.
TEST_F(KeptInterface, HasANameThatTheKernelWouldTake) {
  starts();
  const std::pair<std::string, const char*> bad[] = {
      {"", "empty"},
      {"sixteen-letters-", "no room for the end of the text"},
      {".", "a directory"},
      {"..", "a directory"},
      {"a/b", "a directory in /sys"},
      {"a b", "a blank"},
      {"a\tb", "a blank"},
      {"a\nb", "a blank"},
      {"a\xa0"
       "b",
       "a blank in the kernel's eyes"},
      {"eth0:1", "the label of an address"},
      {std::string("a\0b", 3), "an end in the middle"},
      {"lo", "never listed"},
  };
  for (const auto& [name, reason] : bad) {
    EXPECT_EQ(text(administratorKeeps(name, 1)),
              std::string(refused) + "bad interface name '" + name + "'")
        << reason;
  }
  EXPECT_EQ(text(administratorKeeps(std::string(100000, 'x'), 1)),
            std::string(refused) + "bad interface name '" + std::string(32, 'x') + "'");
  for (const char* good : {"a", "fifteen-letters", "...", "wan0.7", "br-lan", "a@b"}) {
    EXPECT_NE(administratorKeeps(good, 1).get_u32(lm::key::objectId), 0U) << good;
  }
}

// Also proves [link-role].
TEST_F(KeptInterface, HasOneOfTwoRoles) {
  starts();
  for (const uint32_t role : {0U, 3U, lm::none}) {
    EXPECT_EQ(text(administratorKeeps("wan0", role)), std::string(refused) + "bad role");
  }
}

// Promise [kept-names]: 256 names are kept; one more is refused with `too many kept names`.
TEST_F(KeptInterface, IsOneOfAtMost256) {
  std::vector<lm::message> names;
  for (uint32_t id = 1; id <= 255; ++id) names.push_back(kept("n" + std::to_string(id), id, 1));
  lm::message all;
  all.insert_message_array(lm::key::records, std::move(names));
  storeHolds(0, all);
  starts();
  EXPECT_EQ(text(administratorKeeps("n256", 1)), "id=256");
  EXPECT_EQ(text(administratorKeeps("more", 1)), std::string(refused) + "too many kept names");
  EXPECT_EQ(text(administratorKeeps("n5", 2)), "id=5");
  restarts();
  EXPECT_EQ(idOf("n256"), 256U);
}

// Promise: A name that cannot be stored is neither kept, changed nor forgotten: `the name could not
// be stored`.
TEST_F(KeptInterface, ChangesNothingWhenItCannotBeStored) {
  kernel.appears("wan0");
  starts();
  EXPECT_EQ(text(administratorKeeps("wan0", 1)), "id=1");
  storeBecomesUnwritable();
  const std::string answer = std::string(refused) + "the name could not be stored";
  EXPECT_EQ(text(administratorKeeps("ppp0", 1)), answer);
  EXPECT_EQ(text(administratorKeeps("wan0", 2)), answer);
  EXPECT_EQ(text(administratorForgets("wan0")), answer);
  EXPECT_EQ(recordTexts(asks(administrator, lm::cmd::list)),
            (Lines{record(1, 2, "wan0", "disabled=0 running=1") + " role=1"}));
  EXPECT_EQ(notified(), Lines{});
}

// Promise: A stored name that is wrong is skipped at the start and reported: `interfaces: a stored
// name is wrong and left out`.
TEST(KeptNamesTest, SkipsWrongEntriesOfTheStore) {
  const lm::test::TempDir dir;
  lm::Store store(dir.path(), 1);
  struct Row {
    const char* name;
    uint32_t id;
    uint32_t role;
  };
  const Row rows[] = {{"wan0", 1, 1},        {"a/b", 2, 1},  {"eth0", 3, 0},
                      {"eth1", 4, 3},        {"eth2", 0, 1}, {"wan0", 5, 2},
                      {"eth3", lm::none, 1}, {"eth4", 1, 2}, {"lan0", 6, 2}};
  std::vector<lm::message> records;
  for (const Row& row : rows) {
    lm::message m;
    m.insert_string(lm::interfaces::key::name, row.name);
    m.insert_u32(lm::key::objectId, row.id);
    m.insert_u32(lm::interfaces::key::role, row.role);
    records.push_back(m);
  }
  lm::message all;
  all.insert_message_array(lm::key::records, records);
  ASSERT_TRUE(store.set(0, all));
  testing::internal::CaptureStdout();
  RecordingNames names;
  const KeptNames kept(store, names);
  std::string line = "interfaces: a stored name is wrong and left out\n";
  std::string log;
  for (int i = 0; i < 7; ++i) log += line;
  EXPECT_EQ(testing::internal::GetCapturedStdout(), log);
  ASSERT_EQ(kept.all().size(), 2U);
  EXPECT_EQ(kept.all().at("wan0").id, 1U);
  EXPECT_EQ(kept.all().at("wan0").role, 1U);
  EXPECT_EQ(kept.all().at("lan0").id, 6U);
  EXPECT_EQ(names.internal, std::set<std::string>{"lan0"});
}

TEST_F(KeptInterface, KeepsTheIdOfItsLinkWhenItCannotBeStored) {
  kernel.appears("wan0");
  starts();
  storeBecomesUnwritable();
  EXPECT_NE(text(administratorKeeps("wan0", 1)), "id=1");
  // More names than the table remembers, so that an id that is not in use is forgotten.
  for (size_t i = 0; i <= InterfaceIds::rememberedNames; ++i) {
    const std::string name = "ppp" + std::to_string(i);
    kernel.appears(name);
    kernel.leaves(name);
  }
  kernel.leaves("wan0");
  kernel.appears("wan0");
  EXPECT_EQ(idOf("wan0"), 1U);
}

// Promise: Keeping and forgetting are for administrators: `not permitted`.
TEST_F(KeptInterface, IsKeptAndForgottenByAdministratorsOnly) {
  starts();
  lm::message keep;
  keep.insert_string(lm::interfaces::key::name, "wan0");
  keep.insert_u32(lm::interfaces::key::role, 1);
  EXPECT_EQ(text(asks(daemon, lm::cmd::addObject, keep)), std::string(refused) + "not permitted");
  EXPECT_EQ(text(administratorKeeps("wan0", 1)), "id=1");
  lm::message forget;
  forget.insert_u32(lm::key::objectId, 1);
  EXPECT_EQ(text(asks(daemon, lm::cmd::removeObject, forget)),
            std::string(refused) + "not permitted");
}

// Promise [cancel-name]: A name that was kept or forgotten by a request that was given up has its
// earlier role and id.
TEST_F(KeptInterface, AnAddThatWasGivenUpIsUndone) {
  starts();
  EXPECT_EQ(text(administratorKeeps("ppp0", 1)), "id=1");
  EXPECT_EQ(text(administratorKeeps("ppp0", 2)), "id=1");
  interfaceTable->takeUndo()();
  EXPECT_EQ(text(administratorKeeps("ppp1", 2)), "id=2");
  interfaceTable->takeUndo()();
  EXPECT_EQ(lists().size(), 1U);
  EXPECT_EQ(asks(administrator, lm::cmd::list)
                .get_message_array_ref(lm::key::records)[0]
                .get_u32(lm::interfaces::key::role),
            1U);
  restarts();
  EXPECT_EQ(lists().size(), 1U);
}

TEST_F(KeptInterface, ARemovalThatWasGivenUpIsUndoneWithItsId) {
  starts();
  EXPECT_EQ(text(administratorKeeps("ppp0", 1)), "id=1");
  const Lines before = lists();
  EXPECT_EQ(text(administratorForgets("ppp0")), "");
  EXPECT_EQ(lists(), Lines{});
  interfaceTable->takeUndo()();
  EXPECT_EQ(lists(), before);
  restarts();
  EXPECT_EQ(lists(), before);
}

// Promise: An administrator and a service that may read or open ports are shown the roles of
// interfaces; they are notified when the role of a listed interface changes.
TEST_F(KeptInterface, ShowsAReaderTheRolesAndEachChange) {
  startsWithWan();
  const Caller reader{.connection = 3, .service = 42, .name = "web", .reads = true};
  const auto role = [&](const Caller& caller) {
    return asks(caller, lm::cmd::readObject, object(idOf("wan0")))
        .get_u32(lm::interfaces::key::role);
  };
  EXPECT_EQ(lm::getError(administratorKeeps("wan0", 1)), "");
  EXPECT_EQ(notifier.roles, 1);
  EXPECT_EQ(role(reader), 1U);
  EXPECT_EQ(role(daemon), 0U);
  Caller opener = daemon;
  opener.ports = PortGrant();
  EXPECT_EQ(role(opener), 1U);
  EXPECT_EQ(lm::getError(administratorKeeps("wan0", 1)), "");
  EXPECT_EQ(notifier.roles, 1);
  EXPECT_EQ(lm::getError(administratorKeeps("wan0", 2)), "");
  EXPECT_EQ(lm::getError(administratorForgets("wan0")), "");
  EXPECT_EQ(notifier.roles, 3);
  EXPECT_EQ(lm::getError(asks(reader, lm::cmd::addObject)), "not permitted");
  EXPECT_EQ(lm::getError(asks(reader, lm::cmd::removeObject, object(idOf("wan0")))),
            "not permitted");
}

}  // namespace
}  // namespace lumen
