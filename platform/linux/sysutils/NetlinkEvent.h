// SPDX-License-Identifier: Apache-2.0
// Android's decoder of kernel uevents, off Android: the calls, numbers and field meanings of
// <sysutils/NetlinkEvent.h> for the plain-text format
//     action@devpath\0KEY=VALUE\0KEY=VALUE\0...
// The bytes may come from anybody: nothing is read outside the given length and no terminator is
// taken for granted. An event belongs to one thread.
#pragma once

#include <memory>

// Parameters kept of one event; further ones are dropped.
#define NL_PARAMS_MAX 32

class NetlinkEvent {
  public:
    // The plain-text format yields the first four only.
    enum class Action {
        kUnknown = 0,
        kAdd = 1,
        kRemove = 2,
        kChange = 3,
        kLinkUp = 4,
        kLinkDown = 5,
        kAddressUpdated = 6,
        kAddressRemoved = 7,
        kRdnss = 8,
        kRouteUpdated = 9,
        kRouteRemoved = 10,
    };

    NetlinkEvent();
    virtual ~NetlinkEvent();

    // Takes over a copy of one received message; format 0 is plain text, any other is refused.
    // False leaves the event empty: no '@' in the first string, no bytes, or no memory.
    bool decode(char* buffer, int size, int format = 0);

    // The value of a parameter, or null; valid until the next decode. ACTION, SEQNUM and SUBSYSTEM
    // are fields of the event, not parameters.
    const char* findParam(const char* paramName);

    // Null when the event named none.
    const char* getSubsystem() { return subsystem; }
    Action getAction() { return action; }

  private:
    void clear();
    void takeField(const char* text);

    std::unique_ptr<char[]> message;  // terminated; the pointers below lead into it
    Action action = Action::kUnknown;
    const char* subsystem = nullptr;
    const char* params[NL_PARAMS_MAX] = {};  // "KEY=VALUE", in the order of arrival
    int paramCount = 0;
};
