// SPDX-License-Identifier: Apache-2.0
// The command line: commands and their options. A command is a class with one object, which
// registers itself; its options are members, which hold their values once the line has been read.
// Nothing here allocates before main. One thread.
#pragma once

#include <string>

namespace uafd {

// Exit statuses.
constexpr int kExitDone = 0;
constexpr int kExitFailed = 1;  // with the reason on standard error
constexpr int kExitUsage = 2;   // the command line was not understood

// Prints on standard error what is wrong with the command line; returns kExitUsage.
int misused(const std::string& what);
// Prints on standard error what has failed and why; returns kExitFailed.
int failed(const std::string& what, const std::string& reason);

// Reads a number from `low` to `high`, a whole one when T is int; returns false, without a message,
// for anything else. T is int or double.
template <typename T>
bool readNumber(const std::string& text, T low, T high, T* number);
// "a number from 1 to 9"
template <typename T>
std::string rangeOf(T low, T high);

class Option {
  public:
    // Appends itself to `list`. `value` is the name of the option's value in the help; null when it
    // has none.
    Option(Option** list, const char* name, const char* value, const char* help) noexcept;
    Option(const Option&) = delete;
    Option& operator=(const Option&) = delete;

    // False when the option does not accept this value.
    virtual bool read(const std::string& text) = 0;
    // The values that the option accepts, for example "a number from 1 to 9".
    virtual std::string range() const = 0;

    const char* const name;
    const char* const value;
    const char* const help;
    Option* next = nullptr;

  protected:
    ~Option() = default;
};

class Flag final : public Option {
  public:
    Flag(Option** list, const char* name, const char* help) noexcept
        : Option(list, name, nullptr, help) {}
    bool read(const std::string& /*text*/) override { return isGiven = true; }
    std::string range() const override { return "nothing"; }
    explicit operator bool() const { return isGiven; }

  private:
    bool isGiven = false;
};

class Text final : public Option {
  public:
    using Option::Option;
    bool read(const std::string& text) override;
    std::string range() const override { return "a name"; }
    // The value, or null when the option was not given.
    const char* orNull() const { return given.empty() ? nullptr : given.c_str(); }

  private:
    std::string given;
};

// A number that readNumber() accepts.
template <typename T>
class Number final : public Option {
  public:
    Number(Option** list, const char* name, const char* value, T low, T high, T initial,
           const char* help) noexcept
        : Option(list, name, value, help), low(low), high(high), current(initial) {}
    bool read(const std::string& text) override { return readNumber(text, low, high, &current); }
    std::string range() const override { return rangeOf(low, high); }
    T operator*() const { return current; }

  private:
    const T low;
    const T high;
    T current;
};

class Command {
  public:
    // `argument` is the name of the command's own argument in the help: "FILE", or "[FILE]" when it
    // is optional; empty when there is none.
    Command(const char* name, const char* argument, const char* summary) noexcept;
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    // Returns the exit status. `argument` is empty when it was left out.
    virtual int run(const std::string& argument) = 0;

    // The command with this name, or null.
    static Command* find(const std::string& name);
    // The first command by name; `next` leads to the others in order.
    static Command* first();

    const char* const name;
    const char* const argument;
    const char* const summary;
    Command* next;
    Option* options = nullptr;

  protected:
    ~Command() = default;
};

// The options of every command.
extern Option* commonOptions;
extern Text directoryOption;  // where the FIFOs and sockets are
extern Text groupOption;      // of new files there
extern Flag helpOption;
extern Flag versionOption;

}  // namespace uafd
