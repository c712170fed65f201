// SPDX-License-Identifier: Apache-2.0
#include "companion/tool/access.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>
#include <vector>

#include "companion/tool/command.h"

namespace uafd {
namespace {

constexpr const char* kFifos[] = {kFifoRx, kFifoTx};
constexpr char kDaemonUser[] = "uafd";  // the Debian package's
constexpr mode_t kRead = 4;
constexpr mode_t kWrite = 2;
constexpr mode_t kMadeMode = 0660;  // the library's default

// The user and the groups of a process.
struct Someone {
    uid_t user;
    gid_t group;
    std::vector<gid_t> groups;  // including the user's own
};

// ---- Files and users ---------------------------------------------------------------------------

std::string directory() {
    const char* const given = directoryOption.orNull();
    return given == nullptr ? "/tmp" : given;
}

std::optional<struct stat> find(const std::string& path) {
    struct stat found {};
    return lstat(path.c_str(), &found) == 0 ? std::optional(found) : std::nullopt;
}

// "user:group", and a file's mode.
std::string describe(uid_t user, gid_t group) {
    const passwd* const userFound = getpwuid(user);
    const ::group* const groupFound = getgrgid(group);
    return (userFound == nullptr ? std::to_string(user) : userFound->pw_name) + ":" +
           (groupFound == nullptr ? std::to_string(group) : groupFound->gr_name);
}
std::string describe(const struct stat& file) {
    char mode[8];
    snprintf(mode, sizeof mode, " %04o", file.st_mode & 07777U);
    return describe(file.st_uid, file.st_gid) + mode;
}

Someone thisApp() {
    std::vector<gid_t> groups(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
    getgroups(static_cast<int>(groups.size()), groups.data());
    groups.push_back(getegid());
    return {geteuid(), getegid(), groups};
}

// The owner of the daemon's socket; before a daemon has made one, the Debian package's user for it.
std::optional<Someone> theDaemon() {
    const auto socket = find(pathOf(kSocketTx));
    const passwd* const user = socket ? getpwuid(socket->st_uid) : getpwnam(kDaemonUser);
    if (user == nullptr) {
        return socket ? std::optional(Someone{socket->st_uid, socket->st_gid, {socket->st_gid}})
                      : std::nullopt;
    }
    const gid_t group = socket ? socket->st_gid : user->pw_gid;
    int count = 0;
    getgrouplist(user->pw_name, group, nullptr, &count);
    std::vector<gid_t> groups(static_cast<size_t>(count));
    getgrouplist(user->pw_name, group, groups.data(), &count);
    return Someone{user->pw_uid, group, groups};
}

bool isIn(const Someone& who, gid_t group) {
    return std::find(who.groups.begin(), who.groups.end(), group) != who.groups.end();
}

bool may(const Someone& who, mode_t rights, const struct stat& file) {
    mode_t bits = file.st_mode;
    if (who.user == file.st_uid) {
        bits >>= 6;
    } else if (isIn(who, file.st_gid)) {
        bits >>= 3;
    }
    return who.user == 0 || (bits & rights) == rights;
}

// ---- What is made ------------------------------------------------------------------------------

// The group of the daemon's socket, or else of a FIFO, if this app may set it.
std::optional<gid_t> sharedGroup(const Someone& app) {
    std::optional<struct stat> file;
    for (const char* name : {kFifoTx, kFifoRx, kSocketTx}) {
        const auto found = find(pathOf(name));
        file = found ? found : file;
    }
    return file && (app.user == 0 || isIn(app, file->st_gid)) ? std::optional(file->st_gid)
                                                              : std::nullopt;
}

struct stat fileMadeBy(const Someone& app) {
    struct stat file {};
    file.st_uid = app.user;
    file.st_gid = sharedGroup(app).value_or(app.group);
    if (const char* const given = groupOption.orNull()) {
        const ::group* const found = getgrnam(given);
        file.st_gid =
            found != nullptr ? found->gr_gid : static_cast<gid_t>(strtoul(given, nullptr, 10));
    }
    file.st_mode = kMadeMode;
    return file;
}

// ---- Obstacles ---------------------------------------------------------------------------------

// A shared file, and which access app and daemon need.
struct Use {
    const char* name;
    mode_t app;
    mode_t daemon;
};

constexpr Use kUses[] = {{kFifoRx, kRead | kWrite, kWrite},
                         {kFifoTx, kRead | kWrite, kRead},
                         {kSocketRx, 0, kWrite},
                         {kSocketTx, kWrite, 0}};

// Whether another user has to remove the file, as in a folder like /tmp.
bool isAnothersToRemove(const Someone& app, const struct stat& file) {
    const auto folder = find(directory());
    return folder && (folder->st_mode & S_ISVTX) != 0 && app.user != 0 &&
           app.user != folder->st_uid && app.user != file.st_uid;
}

std::string obstacleOfFound(const Someone& app, const std::optional<Someone>& daemon,
                            const Use& use, const struct stat& file) {
    const std::string what = pathOf(use.name) + " (" + describe(file) + ") ";
    if (use.name != kSocketTx && use.name != kSocketRx && !S_ISFIFO(file.st_mode)) {
        return what + "is not a FIFO: remove it";
    }
    if (!may(app, use.app, file)) {
        return what + "is not for this process (" + describe(app.user, app.group) +
               "): run it in the file's group";
    }
    if (daemon && !may(*daemon, use.daemon, file)) {
        return what + "is not for the daemon (" + describe(daemon->user, daemon->group) +
               "): remove it, or give it to the daemon's group";
    }
    return "";
}

std::string obstacleOfMade(const Someone& app, const std::optional<Someone>& daemon,
                           const Use& use) {
    const struct stat file = fileMadeBy(app);
    if (daemon && !may(*daemon, use.daemon, file)) {
        return pathOf(use.name) + " would be made for " + describe(file.st_uid, file.st_gid) +
               ", not for the daemon (" + describe(daemon->user, daemon->group) +
               "): run this in the daemon's group";
    }
    return "";
}

std::string obstacleOf(const Someone& app, const std::optional<Someone>& daemon, const Use& use) {
    const auto file = find(pathOf(use.name));
    if (use.name != kSocketRx && file) {
        return obstacleOfFound(app, daemon, use, *file);
    }
    if (use.name == kSocketRx && file && isAnothersToRemove(app, *file)) {
        return pathOf(use.name) + " (" + describe(*file) +
               ") was left by another user, who has to remove it";
    }
    return use.name == kSocketTx ? "" : obstacleOfMade(app, daemon, use);
}

}  // namespace

std::string pathOf(const std::string& name) {
    return directory() + "/" + name;
}

uafd_options optionsFor(unsigned parts) {
    static std::string group;
    uafd_options options = UAFD_OPTIONS_INIT;
    options.directory = directoryOption.orNull();
    options.parts = parts;
    options.group = groupOption.orNull();
    const auto shared = sharedGroup(thisApp());
    if (options.group == nullptr && shared) {
        group = std::to_string(*shared);
        options.group = group.c_str();
    }
    return options;
}

std::string findObstacle() {
    const Someone app = thisApp();
    const auto daemon = theDaemon();
    for (const Use& use : kUses) {
        std::string obstacle = obstacleOf(app, daemon, use);
        if (!obstacle.empty()) {
            return obstacle;
        }
    }
    return "";
}

FoundFolder::FoundFolder()
    : daemonSocket(find(pathOf(kSocketRx))),
      hasFifo{find(pathOf(kFifoRx)).has_value(), find(pathOf(kFifoTx)).has_value()} {}

void FoundFolder::restore(bool hadDaemon) const {
    const std::string path = pathOf(kSocketRx);
    if (!daemonSocket) {
        unlink(path.c_str());
    } else if (chown(path.c_str(), daemonSocket->st_uid, daemonSocket->st_gid) == 0) {
        chmod(path.c_str(), daemonSocket->st_mode & 07777U);
    }
    for (size_t i = 0; i < 2; ++i) {
        if (!hasFifo[i] && !hadDaemon) {
            unlink(pathOf(kFifos[i]).c_str());
        }
    }
}

}  // namespace uafd
