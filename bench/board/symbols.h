// SPDX-License-Identifier: Apache-2.0
// Names for addresses in a running process and in the kernel. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

namespace bench {

struct Place {
    std::string file;  // of the program or library, without its folder; "kernel"
    std::string function;
};

class Symbols {
  public:
    // Of what the process has mapped by now. A file without a table of all its symbols gives its
    // exported ones, and an address in a function between two of them the name before it.
    explicit Symbols(pid_t pid);

    Place inProgram(uint64_t address) const;
    Place inKernel(uint64_t address) const;
    // Whether the program returns there from the kernel.
    bool followsSystemCall(uint64_t address) const;

  private:
    using Functions = std::map<uint64_t, std::string>;  // by their first address
    struct Mapping {
        uint64_t end;
        uint64_t offset;  // from an address to what the file's symbols say
        std::string file;
    };
    struct File {
        std::string bytes;
        Functions functions;
    };

    static Functions functionsIn(const std::string& elf);
    const Mapping* mappingOf(uint64_t address) const;
    static Functions readKernel();
    static std::string nameIn(const Functions& functions, uint64_t address);

    std::map<uint64_t, Mapping> mappings;  // by their first address
    std::map<std::string, File> files;
    Functions kernel;
};

}  // namespace bench
