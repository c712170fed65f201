// SPDX-License-Identifier: Apache-2.0
#include "companion/tool/processes.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace uafd {
namespace {

using Folder = std::unique_ptr<DIR, int (*)(DIR*)>;

Folder openFolder(const std::string& path) {
    return {opendir(path.c_str()), closedir};
}

// The numbers among the names in a folder: processes in /proc, descriptors in /proc/PID/fd.
std::vector<int> numbersIn(DIR* folder) {
    std::vector<int> numbers;
    while (folder != nullptr) {
        const dirent* const entry = readdir(folder);
        if (entry == nullptr) {
            break;
        }
        char* end = nullptr;
        const long number = strtol(entry->d_name, &end, 10);
        if (*end == '\0' && end != entry->d_name) {
            numbers.push_back(static_cast<int>(number));
        }
    }
    return numbers;
}

std::string folderOf(const std::string& proc, pid_t pid) {
    return proc + "/" + std::to_string(pid);
}

Process processOf(const std::string& proc, pid_t pid) {
    return {pid, printable(firstLineOf(folderOf(proc, pid) + "/comm"))};
}

// ---- Open files --------------------------------------------------------------------------------

Fifo::User* userIn(Fifo* fifo, const Process& process) {
    auto found = std::find_if(fifo->users.begin(), fifo->users.end(), [&](const Fifo::User& user) {
        return user.process.pid == process.pid;
    });
    if (found == fifo->users.end()) {
        found = fifo->users.insert(found, {process, false, false});
    }
    return &*found;
}

// False when this user may not look at the process.
bool findUsesOf(const std::string& proc, pid_t pid, const std::vector<Fifo*>& fifos) {
    const std::string path = folderOf(proc, pid);
    const Folder files = openFolder(path + "/fd");
    if (files == nullptr) {
        return errno != EACCES && errno != EPERM;
    }
    for (const int number : numbersIn(files.get())) {
        struct stat file {};
        if (fstatat(dirfd(files.get()), std::to_string(number).c_str(), &file, 0) != 0 ||
            !S_ISFIFO(file.st_mode)) {
            continue;
        }
        for (Fifo* fifo : fifos) {
            if (!fifo->exists.value_or(false) || fifo->device != file.st_dev ||
                fifo->inode != file.st_ino) {
                continue;
            }
            const std::string info = contentsOf(path + "/fdinfo/" + std::to_string(number));
            const long access = strtol(valueOf(info, "flags").c_str(), nullptr, 8) & O_ACCMODE;
            Fifo::User* const user = userIn(fifo, processOf(proc, pid));
            user->reads |= access != O_WRONLY;
            user->writes |= access != O_RDONLY;
        }
    }
    return true;
}

// Lines like "1: FLOCK  ADVISORY  WRITE 4711 00:1c:12345 0 EOF".
void findOwners(const std::string& proc, const std::vector<Fifo*>& fifos) {
    for (const std::string& line : linesOf(contentsOf(proc + "/locks"))) {
        int pid = 0;
        unsigned high = 0;
        unsigned low = 0;
        unsigned long inode = 0;
        // NOLINTNEXTLINE(cert-err34-c): the kernel writes the line
        if (sscanf(line.c_str(), "%*d: FLOCK %*s WRITE %d %x:%x:%lu", &pid, &high, &low, &inode) !=
            4) {
            continue;
        }
        for (Fifo* fifo : fifos) {
            if (fifo->exists.value_or(false) && fifo->inode == inode &&
                fifo->device == makedev(high, low)) {
                fifo->owner = processOf(proc, pid);
            }
        }
    }
}

}  // namespace

std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char letter) { return letter < ' ' || letter > '~'; }, '?');
    return text;
}

std::string contentsOf(const std::string& path) {
    std::string text;
    char some[1024];
    FILE* const file = fopen(path.c_str(), "re");
    while (file != nullptr) {
        const size_t size = fread(some, 1, sizeof some, file);
        text.append(some, size);
        if (size == 0) {
            fclose(file);
            break;
        }
    }
    return text;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

std::string firstLineOf(const std::string& path) {
    const std::string text = contentsOf(path);
    return text.substr(0, text.find('\n'));
}

std::string valueOf(const std::string& text, const std::string& key) {
    for (const std::string& line : linesOf(text)) {
        const size_t mark = line.find_first_of(":=");
        if (mark == std::string::npos || line.compare(0, key.size(), key) != 0 ||
            line.find_first_not_of(' ', key.size()) != mark) {
            continue;
        }
        const size_t begin = line.find_first_not_of(" \t", mark + 1);
        return begin == std::string::npos ? "" : printable(line.substr(begin));
    }
    return "";
}

std::optional<Process> findProcess(const std::string& proc, const std::string& name) {
    const Folder folder = openFolder(proc);
    for (const pid_t pid : numbersIn(folder.get())) {
        const Process process = processOf(proc, pid);
        if (process.name == name) {
            return process;
        }
    }
    return std::nullopt;
}

std::optional<ProcessState> stateOf(const std::string& proc, pid_t pid) {
    const std::string stat = contentsOf(folderOf(proc, pid) + "/stat");
    const size_t end = stat.rfind(')');  // of the name, which may contain anything
    ProcessState state;
    unsigned long user = 0;
    unsigned long system = 0;
    unsigned long long start = 0;
    long pages = 0;
    if (end == std::string::npos ||
        // NOLINTNEXTLINE(cert-err34-c): the kernel writes it
        sscanf(stat.c_str() + end + 1,
               " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu %*d %*d %*d %*d %d %*d %llu "
               "%*u %ld",
               &state.letter, &user, &system, &state.threads, &start, &pages) != 6) {
        return std::nullopt;
    }
    const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    state.cpuS = static_cast<double>(user + system) / ticks;
    state.uptimeS =
        strtod(firstLineOf(proc + "/uptime").c_str(), nullptr) - static_cast<double>(start) / ticks;
    state.memoryKib = int64_t{pages} * sysconf(_SC_PAGESIZE) / 1024;
    return state;
}

Fifo::Fifo(const std::string& path) {
    struct stat file {};
    if (stat(path.c_str(), &file) == 0 || errno == ENOENT) {
        exists = S_ISFIFO(file.st_mode);
    }
    device = file.st_dev;
    inode = file.st_ino;
}

bool findUsers(const std::string& proc, const std::vector<Fifo*>& fifos) {
    findOwners(proc, fifos);
    const Folder folder = openFolder(proc);
    bool isComplete = folder != nullptr;
    for (const pid_t pid : numbersIn(folder.get())) {
        isComplete = findUsesOf(proc, pid, fifos) && isComplete;
    }
    return isComplete;
}

}  // namespace uafd
