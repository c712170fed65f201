// SPDX-License-Identifier: Apache-2.0
#include "tests/model/stage.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "tests/support/fake_sys.h"

namespace uafd {
namespace {

// Ends only a test that has failed, when a thread never reaches its next call.
constexpr std::chrono::seconds kRestDeadline{60};

}  // namespace

thread_local Stage::Player* Stage::self = nullptr;

std::string Stage::call(const std::string& call) {
    std::unique_lock<std::mutex> lock(mutex);
    self->call = call;
    self->atRest = true;
    changed.notify_all();
    changed.wait(lock, [this] { return !self->atRest || isOver; });
    if (isOver) {
        throw ScriptIsOver();
    }
    self->call.clear();
    return self->answer;
}

const std::string& Stage::part() {
    return self->part;
}

void Stage::effect(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex);
    effects.push_back(text);
}

int Stage::create(pthread_t* id, const std::string& part, std::function<void()> body) {
    auto* const player = new Player;
    player->part = part;
    player->body = std::move(body);
    player->stage = this;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        players.push_back(player);
    }
    const int rc = fake_sys::real::pthread_create(&player->id, nullptr, run, player);
    *id = player->id;
    return rc;
}

void* Stage::run(void* player) {
    self = static_cast<Player*>(player);
    Stage& stage = *self->stage;
    try {
        self->body();
    } catch (const ScriptIsOver&) {
    }
    const std::lock_guard<std::mutex> lock(stage.mutex);
    self->left = true;
    self->atRest = true;
    stage.changed.notify_all();
    return nullptr;
}

std::string Stage::partOf(pthread_t id) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = std::find_if(players.begin(), players.end(),
                                    [id](const Player* each) { return each->id == id; });
    return found != players.end() ? (*found)->part : "nobody 9";
}

bool Stage::join(pthread_t id) {
    std::unique_lock<std::mutex> lock(mutex);
    const auto found = std::find_if(players.begin(), players.end(),
                                    [id](const Player* each) { return each->id == id; });
    if (found == players.end()) {
        return false;
    }
    Player* const player = *found;
    if (!player->left) {
        return false;
    }
    players.erase(found);
    lock.unlock();
    fake_sys::real::pthread_join(id, nullptr);
    delete player;
    return true;
}

Stage::Player* Stage::find(const std::string& part) {
    const auto found = std::find_if(players.begin(), players.end(), [&](const Player* each) {
        return each->part == part && !each->left;
    });
    return found != players.end() ? *found : nullptr;
}

std::string Stage::callOf(const std::string& part) {
    std::unique_lock<std::mutex> lock(mutex);
    waitForRest(lock);
    const Player* const player = find(part);
    return player != nullptr ? player->call : "";
}

void Stage::answer(const std::string& part, const std::string& answer) {
    std::unique_lock<std::mutex> lock(mutex);
    Player* const player = find(part);
    player->answer = answer;
    player->atRest = false;
    changed.notify_all();
    waitForRest(lock);
}

void Stage::waitForRest(std::unique_lock<std::mutex>& lock) {
    changed.wait_for(lock, kRestDeadline, [this] {
        return std::all_of(players.begin(), players.end(),
                           [](const Player* each) { return each->atRest; });
    });
}

int Stage::threads(const std::string& part) {
    const std::lock_guard<std::mutex> lock(mutex);
    return static_cast<int>(std::count_if(players.begin(), players.end(),
                                          [&](const Player* each) { return each->part == part; }));
}

std::vector<std::string> Stage::takeEffects() {
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(effects, {});
}

void Stage::close() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        isOver = true;
        changed.notify_all();
    }
    for (Player* const player : players) {
        fake_sys::real::pthread_join(player->id, nullptr);
        delete player;
    }
    players.clear();
}

}  // namespace uafd
