#include "lumen/services/system/processes/StoreWatch.h"

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

namespace lumen {

namespace {

/// Looks at files as another user does, until destroyed. lumend may not read what belongs to
/// others.
class AsUser {
 public:
  explicit AsUser(uid_t user) : own_(static_cast<uid_t>(setfsuid(user))) {}
  AsUser(const AsUser&) = delete;
  AsUser& operator=(const AsUser&) = delete;
  ~AsUser() {
    setfsuid(own_);
    // Both changes have cleared it.
    prctl(PR_SET_DUMPABLE, 1);
  }

 private:
  uid_t own_;
};

}  // namespace

StoreWatch::StoreWatch(Observer& observer)
    : observer_(observer), notifications_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (notifications_.valid()) {
    watch_.start<&StoreWatch::changed>(notifications_.get(), *this, lm::watchRead);
  }
}

Result<void> StoreWatch::add(uint32_t service, const std::string& directory, uid_t user) {
  const AsUser asUser(user);
  Folder entries(directory);
  if (!entries.valid()) return Failure{directory + ": " + strerror(errno)};
  const int number = inotify_add_watch(notifications_.get(), directory.c_str(),
                                       IN_CREATE | IN_MOVED_TO | IN_ONLYDIR | IN_DONT_FOLLOW);
  if (number < 0) return Failure{directory + ": inotify: " + strerror(errno)};
  stores_.insert_or_assign(number, Store{service, directory, std::move(entries)});
  return {};
}

void StoreWatch::changed(int fd) {
  alignas(inotify_event) std::array<char, 4096> events;
  const ssize_t length = read(fd, events.data(), events.size());
  std::set<int> changed;
  for (ssize_t at = 0; at < length;) {
    const auto* const event = reinterpret_cast<const inotify_event*>(events.data() + at);
    at += static_cast<ssize_t>(sizeof *event + event->len);
    if ((event->mask & IN_Q_OVERFLOW) != 0) {
      for (const auto& [number, store] : stores_) changed.insert(number);
    }
    changed.insert(event->wd);
  }
  for (const int number : changed) {
    const auto store = stores_.find(number);
    if (store != stores_.end()) check(store->second);
  }
}

void StoreWatch::check(Store& store) const {
  size_t files = 0;
  store.entries.rewind();
  while (const dirent* const entry = store.entries.next()) {
    // What lies below it is not counted.
    if (entry->d_type == DT_DIR) {
      return observer_.storeExceeded(store.service, store.path + " holds a directory");
    }
    if (++files <= mostFiles) continue;
    return observer_.storeExceeded(
        store.service, store.path + " holds more than " + std::to_string(mostFiles) + " files");
  }
}

}  // namespace lumen
