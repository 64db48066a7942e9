#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <limits>

#include "lumen/services/supervisor/ServiceFile.h"
#include "lumen/services/supervisor/ServiceFolder.h"
#include "support/LogCapture.h"
#include "support/RefusedCall.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lumen {
namespace {

class TwoUsers : public UserDatabase {
 public:
  std::optional<User> user(const std::string& name) const override {
    if (name == "palinode") return User{200, 300};
    if (name == "root") return User{0, 0};
    return std::nullopt;
  }
  std::optional<gid_t> group(const std::string& name) const override {
    if (name == "net") return 400;
    return std::nullopt;
  }
};

/// A correct service file with this added; a setting that is given replaces the correct one.
std::string serviceFile(const std::string& name = "", const std::string& line = "") {
  std::string text = "[service]\n";
  const std::pair<const char*, const char*> right[] = {{"name", "name = upnp"},
                                                       {"number", "number = 40"},
                                                       {"executable", "executable = /bin/igd"},
                                                       {"user", "user = palinode"}};
  for (const auto& [setting, setLine] : right) {
    if (name != setting) text += std::string(setLine) + "\n";
  }
  return text + line + "\n";
}

Result<ServiceDefinition> parse(const std::string& text) {
  return parseServiceFile(text, TwoUsers());
}

std::string whyNot(const std::string& text) { return whyNot(parse(text)); }

TEST(SystemUsers, AreThoseOfThisMachine) {
  const SystemUsers users;
  const auto root = users.user("root");
  ASSERT_TRUE(root);
  EXPECT_EQ(root->id, 0U);
  EXPECT_EQ(root->group, 0U);
  EXPECT_EQ(users.group("root"), std::optional<gid_t>(0));
  EXPECT_FALSE(users.user("nobody-of-that-name"));
  EXPECT_FALSE(users.group("nobody-of-that-name"));
}

// Promise [service-file]: A service file gives name, number, executable and user, and may give
// group, `boot`, `answers-only` and stores.
TEST(ServiceFile, DescribesAService) {
  const auto service = parse(
      "; The gateway daemon.\n"
      "[service]\n"
      "name = upnp\n"
      "number = 40   ; the daemon's\n"
      "executable=/usr/bin/palinode-igd\r\n"
      "user = palinode\n"
      "group = net\n"
      "boot = yes\n"
      "answers-only = yes\n"
      "stores = upnp  upnpm more\n"
      "network = internal\n");
  ASSERT_TRUE(service);
  EXPECT_EQ(service->name, "upnp");
  EXPECT_EQ(service->number, 40U);
  EXPECT_EQ(service->executable, "/usr/bin/palinode-igd");
  EXPECT_EQ(service->user, 200U);
  EXPECT_EQ(service->group, 400U);
  EXPECT_TRUE(service->boot);
  EXPECT_TRUE(service->answersOnly);
  EXPECT_EQ(service->stores, (std::vector<std::string>{"upnp", "upnpm", "more"}));
  EXPECT_EQ(service->network, NetworkGrant::internal);
}

// Promise: A service file says by `reads = yes` that the service may read, and by
// `capabilities = net-bind-service` that it keeps this capability, the only one that a service can
// have.
TEST(ServiceFile, SaysWhatTheServiceMayReadAndKeep) {
  EXPECT_TRUE(parse(serviceFile("", "reads = yes"))->reads);
  EXPECT_FALSE(parse(serviceFile("", "reads = no"))->reads);
  EXPECT_FALSE(parse(serviceFile())->reads);
  EXPECT_TRUE(parse(serviceFile("", "capabilities = net-bind-service"))->netBindService);
  EXPECT_FALSE(parse(serviceFile("", "capabilities ="))->netBindService);
  EXPECT_FALSE(parse(serviceFile())->netBindService);
  EXPECT_EQ(whyNot(serviceFile("", "reads = maybe")), "\"reads\" is neither yes nor no");
  for (const char* other : {"net-admin", "net-bind-service net-raw", "NET-BIND-SERVICE", "10"}) {
    EXPECT_EQ(whyNot(serviceFile("", std::string("capabilities = ") + other)),
              "\"capabilities\" can be net-bind-service and nothing else")
        << other;
  }
}

// Promise: A service file says by `network` where the service may send packets: `internal`,
// `answers`, `name-servers` or `none`.
TEST(ServiceFile, SaysWhereTheServiceMaySend) {
  EXPECT_EQ(parse(serviceFile("", "network = name-servers"))->network, NetworkGrant::nameServers);
  EXPECT_EQ(parse(serviceFile("", "network = answers"))->network, NetworkGrant::answers);
  EXPECT_EQ(parse(serviceFile("", "network = none"))->network, NetworkGrant::none);
  EXPECT_EQ(parse(serviceFile())->network, std::nullopt);
}

// Promise: A service file says by `ports = yes` that the service may open ports, by `most-ports`
// how many at a time, and by `longest-lease` for how many seconds at most.
TEST(ServiceFile, SaysWhichPortsTheServiceMayOpen) {
  using namespace std::chrono_literals;
  EXPECT_EQ(parse(serviceFile("", "ports = yes"))->ports, PortGrant());
  EXPECT_EQ(parse(serviceFile("", "ports = no"))->ports, std::nullopt);
  EXPECT_EQ(parse(serviceFile())->ports, std::nullopt);
  EXPECT_EQ(parse(serviceFile("", "ports = yes\nmost-ports = 64\nlongest-lease = 86400"))->ports,
            (PortGrant{.most = 64, .longestLease = 24h}));
  EXPECT_EQ(parse(serviceFile("", "ports = yes\nlongest-lease = 4294967295"))->ports,
            PortGrant{.longestLease = 4294967295s});
}

// Also proves [service-file].
TEST(ServiceFile, HasDefaultsForWhatIsLeftOut) {
  const auto service = parse(serviceFile());
  ASSERT_TRUE(service);
  EXPECT_EQ(service->group, 300U) << "the user's own";
  EXPECT_FALSE(service->boot);
  EXPECT_FALSE(service->answersOnly);
  EXPECT_TRUE(service->stores.empty());
}

TEST(ServiceFile, TakesBlanksAndNoForAnAnswer) {
  const auto service = parse(serviceFile("name", "name\t=\tup-2\nboot = no"));
  ASSERT_TRUE(service);
  EXPECT_EQ(service->name, "up-2");
  EXPECT_FALSE(service->boot);
}

// Promise: A service's user is a name or a number that need not exist in the user database; its
// group is the user's own unless one is given.
TEST(ServiceFile, TakesANumberForAUserWithoutAName) {
  const auto service = parse(serviceFile("user", "user = 12345"));
  ASSERT_TRUE(service);
  EXPECT_EQ(service->user, 12345U);
  EXPECT_EQ(service->group, 12345U);
  EXPECT_EQ(parse(serviceFile("user", "user = 12345\ngroup = 7"))->group, 7U);
}

// Also proves [service-name], [service-file-line], [service-file-size].
TEST(ServiceFile, TakesTheLongestNameLineAndFile) {
  const std::string name(32, 'a');
  std::string text = serviceFile("name", "name = " + name) + ";" + std::string(189, 'x') + "\n";
  EXPECT_EQ(parse(text)->name, name);
  text += std::string(16384 - text.size(), '\n');
  EXPECT_EQ(parse(text)->name, name);
}

// Promise: A setting that is missing, unknown, given twice or outside the section is refused:
// `"name" is missing`, `unknown setting "colour"`, `"number" is given twice`, `settings belong
// below [service]`.
// Promise [service-name]: A service name has 1 to 32 lower-case letters, digits and dashes and does
// not begin with a dash: `"-x" is no name`.
// Promise [service-number]: A service number is from 1 to 65535: `"65536" is no number`.
// Promise: A service's executable is an absolute path: `"bin/igd" is no executable`.
// Promise [service-root]: No service runs as root or in root's group: `may not run as root`, `may
// not run in root's group`.
// Promise: An unknown user or group is refused: `there is no user "nobody-knows"`, `there is no
// group "wheel"`.
// Promise: A switch of a service file is `yes` or `no`: `"boot" is neither yes nor no`.
// Promise: A store of a service is a name, not a path: `"../x" is no name of a store`.
// Promise [service-file-line]: A line of a service file that is no setting, has more than 190
// bytes, or a byte that is no printable ASCII is refused with its number: `line 6: is too long`.
// Promise [service-file-size]: A service file of more than 16384 bytes is refused: `is too long`.
// Also proves [service-file-wrong].
TEST(ServiceFile, IsRefusedWithAReason) {
  struct Case {
    const char* replaced;
    std::string line;
    const char* reason;
  };
  const std::string longName(33, 'a');
  const Case cases[] = {
      {"name", "", "\"name\" is missing"},
      {"name", "name =", "\"\" is no name"},
      {"name", "name = ../etc", "\"../etc\" is no name"},
      {"name", "name = -x", "\"-x\" is no name"},
      {"name", "name = Upnp", "\"Upnp\" is no name"},
      {"name", "name = up{np", "\"up{np\" is no name"},
      {"name", "name = up!np", "\"up!np\" is no name"},
      {"name", "name = " + longName, "is no name"},
      {"number", "", "\"number\" is missing"},
      {"number", "number = 0", "\"0\" is no number"},
      {"number", "number = 65536", "\"65536\" is no number"},
      {"number", "number = -1", "\"-1\" is no number"},
      {"number", "number = 4x", "\"4x\" is no number"},
      {"number", "number = 99999999999999999999", "is no number"},
      {"executable", "", "\"executable\" is missing"},
      {"executable", "executable = bin/igd", "\"bin/igd\" is no executable"},
      {"user", "", "\"user\" is missing"},
      {"user", "user = nobody-knows", "there is no user \"nobody-knows\""},
      {"user", "user = root", "may not run as root"},
      {"user", "user = 0", "may not run as root"},
      {"user", "user = 4294967295", "may not run as root"},
      {"user", "user = 5000000000", "there is no user \"5000000000\""},
      {"", "group = 0", "may not run in root's group"},
      {"", "group = 4294967295", "may not run in root's group"},
      {"", "group = wheel", "there is no group \"wheel\""},
      {"", "boot = maybe", "\"boot\" is neither yes nor no"},
      {"", "answers-only = 1", "\"answers-only\" is neither yes nor no"},
      {"", "stores = upnp ../x", "\"../x\" is no name of a store"},
      {"", "network = all", "\"network\" is none of internal, answers, name-servers and none"},
      {"", "network =", "\"network\" is none of internal, answers, name-servers and none"},
      {"", "ports = 64", "\"ports\" is neither yes nor no"},
      {"", "most-ports = 64", "\"most-ports\" needs \"ports = yes\""},
      {"", "ports = no\nlongest-lease = 1", "\"longest-lease\" needs \"ports = yes\""},
      {"", "ports = yes\nmost-ports = 0", "\"most-ports\" is no number from 1 to 65536"},
      {"", "ports = yes\nmost-ports = 65537", "\"most-ports\" is no number from 1 to 65536"},
      {"", "ports = yes\nmost-ports =", "\"most-ports\" is no number from 1 to 65536"},
      {"", "ports = yes\nlongest-lease = 0", "is no number from 1 to 4294967295"},
      {"", "ports = yes\nlongest-lease = 1 h", "is no number from 1 to 4294967295"},
      {"", "ports = yes\nlongest-lease = 4294967296", "is no number from 1 to 4294967295"},
      {"", "ports = yes\nreads = yes", "may be neither \"answers-only\" nor one that \"reads\""},
      {"", "ports = yes\nanswers-only = yes", "may be neither \"answers-only\" nor one"},
      {"", "colour = red", "unknown setting \"colour\""},
      {"", "colour = red\nnumber = 41", "unknown setting \"colour\""},
      {"", "number = 41", "\"number\" is given twice"},
      {"", "[other]\nname = x", "settings belong below [service]"},
      {"", "what is this", "line 6: is no setting"},
      {"", "[service", "line 6: is no setting"},
      {"", "boot = \x01yes", "line 6: a byte that is no printable ASCII"},
      {"", std::string("boot = yes\0", 11), "line 6: a byte that is no printable ASCII"},
      {"", "boot = j\xC3\xA4", "line 6: a byte that is no printable ASCII"},
      {"", "boot = \x7Fyes", "line 6: a byte that is no printable ASCII"},
      {"", ";" + std::string(190, 'x'), "line 6: is too long"},
      {"", "boot = yes\n  no", "\"boot\" is given twice"},
  };
  for (const Case& refused : cases) {
    SCOPED_TRACE(refused.line);
    const std::string reason = whyNot(serviceFile(refused.replaced, refused.line));
    EXPECT_NE(reason.find(refused.reason), std::string::npos) << reason;
  }
  EXPECT_EQ(whyNot(""), "\"name\" is missing");
  EXPECT_EQ(whyNot("name = x\n"), "settings belong below [service]");
  EXPECT_EQ(whyNot(std::string(16385, '\n')), "is too long");
}

class ServiceFolderTest : public testing::Test {
 protected:
  void put(const std::string& name, const std::string& text) { folder_.write(name, text); }

  std::vector<std::string> read() {
    testing::internal::CaptureStdout();
    std::vector<std::string> names;
    for (const auto& service : readServiceFolder(folder_.path(), TwoUsers(), {20, 65})) {
      names.push_back(service.name);
    }
    log_ = testing::internal::GetCapturedStdout();
    return names;
  }

  lm::test::TempDir folder_;
  std::string log_;
};

using Names = std::vector<std::string>;

TEST_F(ServiceFolderTest, GivesTheServicesInRisingOrder) {
  put("a.ini", serviceFile());
  put("b.ini", "[service]\nname = resolver\nnumber = 14\nexecutable = /bin/r\nuser = 7\n");
  put("readme.txt", "no service");
  put("c.ini~", "no service");
  EXPECT_EQ(read(), (Names{"resolver", "upnp"}));
  EXPECT_EQ(log_, "");
}

// Promise [service-file-wrong]: A wrong service file is skipped and logged with its path and the
// reason; the others count.
TEST_F(ServiceFolderTest, SkipsAWrongFileAndLogsWhy) {
  put("a.ini", serviceFile("user", "user = root"));
  put("b.ini", serviceFile());
  EXPECT_EQ(read(), Names{"upnp"});
  EXPECT_EQ(log_, folder_.file("a.ini") + ": may not run as root\n");
}

// Promise [service-twice]: Of two files with one number or one name the second is skipped, and so
// is one with a number of lumend's own.
TEST_F(ServiceFolderTest, SkipsTheSecondFileWithANumberOrName) {
  put("a.ini", serviceFile());
  put("b.ini", serviceFile("name", "name = other"));
  put("c.ini", serviceFile("number", "number = 41"));
  EXPECT_EQ(read(), Names{"upnp"});
  EXPECT_EQ(log_, folder_.file("b.ini") + ": number 40 is that of upnp\n" + folder_.file("c.ini") +
                      ": there is another service upnp\n");
}

// Also proves [service-twice].
TEST_F(ServiceFolderTest, SkipsANumberOfLumend) {
  put("a.ini", serviceFile("number", "number = 20"));
  EXPECT_EQ(read(), Names{});
  EXPECT_EQ(log_, folder_.file("a.ini") + ": number 20 is lumend's own\n");
}

// Promise: What is no plain file ending in `.ini` is no service file; a folder, a pipe and a broken
// link with that ending are reported.
TEST_F(ServiceFolderTest, SkipsAnythingButPlainFiles) {
  std::filesystem::create_directory(folder_.file("a.ini"));
  ASSERT_EQ(mkfifo(folder_.file("b.ini").c_str(), 0600), 0);
  std::filesystem::create_symlink("/nowhere", folder_.file("c.ini"));
  put("d.ini", std::string(16385, '\n'));
  EXPECT_EQ(read(), Names{});
  EXPECT_EQ(log_, folder_.file("a.ini") + ": is no plain file\n" + folder_.file("b.ini") +
                      ": is no plain file\n" + folder_.file("c.ini") +
                      ": No such file or directory\n" + folder_.file("d.ini") + ": is too long\n");
}

TEST_F(ServiceFolderTest, SkipsAFileThatCannotBeRead) {
  put("a.ini", serviceFile());
  const lm::test::LogCapture log;
  whileRefused({SCMP_SYS(read)}, EIO,
               [this] { EXPECT_TRUE(readServiceFolder(folder_.path(), TwoUsers(), {}).empty()); });
  EXPECT_EQ(log.text(), folder_.file("a.ini") + ": Input/output error\n");
}

// Promise: A missing folder of service files is reported and means no services.
TEST_F(ServiceFolderTest, LogsThatTheFolderIsMissing) {
  std::filesystem::remove_all(folder_.path());
  EXPECT_EQ(read(), Names{});
  EXPECT_EQ(log_, folder_.path() + ": No such file or directory\n");
}

}  // namespace
}  // namespace lumen
