// SPDX-License-Identifier: Apache-2.0
#include "board/kit/process_view.h"

#include <algorithm>
#include <climits>
#include <dirent.h>
#include <sstream>
#include <unistd.h>

#include <sys/stat.h>

#include "board/kit/files.h"

namespace board {
namespace {

std::string folderOf(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    DIR* const directory = opendir(folder.c_str());
    if (directory == nullptr) {
        return names;
    }
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(directory);
    return names;
}

// Field `number`, counted from 1, of a stat file; the second one, the name, may hold blanks.
std::string statField(const std::string& stat, int number) {
    const size_t nameEnd = stat.rfind(')');
    if (nameEnd == std::string::npos) {
        return "";
    }
    std::istringstream fields(stat.substr(nameEnd + 1));
    std::string field;
    for (int i = 3; i <= number; ++i) {
        fields >> field;
    }
    return field;
}

int64_t sumOf(const std::string& rollup, const std::string& key) {
    std::istringstream lines(rollup);
    int64_t sum = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            sum += std::stoll(line.substr(line.find(':') + 1));
        }
    }
    return sum;
}

}  // namespace

std::vector<ThreadView> threadsOf(pid_t pid) {
    constexpr int stateField = 3;
    constexpr int priorityField = 40;
    constexpr int policyField = 41;
    std::vector<ThreadView> threads;
    const std::string tasks = folderOf(pid, "task");
    for (const std::string& tid : namesIn(tasks)) {
        const std::string task = tasks + "/" + tid + "/";
        const std::string stat = contents(task + "stat");
        const std::string cpu = contents(task + "schedstat");
        if (stat.empty() || cpu.empty()) {
            continue;
        }
        threads.push_back({std::stoi(tid), std::stoi(statField(stat, policyField)),
                           std::stoi(statField(stat, priorityField)),
                           statField(stat, stateField)[0], std::stoll(cpu),
                           contents(task + "wchan")});
    }
    return threads;
}

size_t threadCount(pid_t pid) {
    // The directory has one link for each thread and two of its own.
    struct stat tasks {};
    return stat(folderOf(pid, "task").c_str(), &tasks) == 0 ? tasks.st_nlink - 2 : 0;
}

Ns cpuOf(pid_t pid) {
    Ns sum = 0;
    for (const ThreadView& thread : threadsOf(pid)) {
        sum += thread.cpu;
    }
    return sum;
}

int64_t sleepsOf(pid_t pid) {
    const std::string tasks = folderOf(pid, "task");
    int64_t sum = 0;
    for (const std::string& tid : namesIn(tasks)) {
        sum += sumOf(contents(tasks + "/" + tid + "/status"), "voluntary_ctxt_switches");
    }
    return sum;
}

std::vector<std::string> descriptorsOf(pid_t pid) {
    std::vector<std::string> targets;
    const std::string folder = folderOf(pid, "fd");
    for (const std::string& name : namesIn(folder)) {
        char target[PATH_MAX];
        const ssize_t length = readlink((folder + "/" + name).c_str(), target, sizeof target);
        targets.emplace_back(target, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    }
    std::sort(targets.begin(), targets.end());
    return targets;
}

MemoryView memoryOf(pid_t pid) {
    const std::string rollup = contents(folderOf(pid, "smaps_rollup"));
    return {sumOf(rollup, "Rss"), sumOf(rollup, "Private_"), sumOf(rollup, "Anonymous")};
}

}  // namespace board
