// SPDX-License-Identifier: Apache-2.0
#include "bench/board/symbols.h"

#include <cstring>
#include <elf.h>
#include <sstream>

#include "board/kit/files.h"

namespace bench {
namespace {

std::string nameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

template <typename T>
const T* at(const std::string& file, uint64_t offset) {
    return reinterpret_cast<const T*>(file.data() + offset);
}

}  // namespace

Symbols::Symbols(pid_t pid) : kernel(readKernel()) {
    std::istringstream maps(board::contents("/proc/" + std::to_string(pid) + "/maps"));
    std::map<std::string, uint64_t> bases;
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        uint64_t begin = 0;
        uint64_t end = 0;
        char dash = 0;
        std::string skipped;
        std::string path;
        fields >> std::hex >> begin >> dash >> end >> skipped >> skipped >> skipped >> skipped >>
            path;
        if (path.empty()) {
            continue;
        }
        // A file's first mapping is that of its beginning, which its symbols count from.
        const uint64_t base = bases.emplace(path, begin).first->second;
        mappings[begin] = {end, base, nameOf(path)};
        if (path[0] == '/' && files.count(nameOf(path)) == 0) {
            File& file = files[nameOf(path)];
            file.bytes = board::contents(path);
            file.functions = functionsIn(file.bytes);
        }
    }
}

Symbols::Functions Symbols::functionsIn(const std::string& file) {
    Functions functions;
    if (file.compare(0, SELFMAG, ELFMAG) != 0) {
        return functions;
    }
    const auto* const header = at<Elf64_Ehdr>(file, 0);
    const auto* const sections = at<Elf64_Shdr>(file, header->e_shoff);
    const Elf64_Shdr* table = nullptr;
    for (const Elf64_Shdr* section = sections; section != sections + header->e_shnum; ++section) {
        if (section->sh_type == SHT_SYMTAB ||
            (section->sh_type == SHT_DYNSYM && table == nullptr)) {
            table = section;
        }
    }
    if (table == nullptr) {
        return functions;
    }
    const uint64_t names = sections[table->sh_link].sh_offset;
    const auto* const symbols = at<Elf64_Sym>(file, table->sh_offset);
    for (uint64_t i = 0; i < table->sh_size / sizeof *symbols; ++i) {
        const Elf64_Sym& symbol = symbols[i];
        if (ELF64_ST_TYPE(symbol.st_info) == STT_FUNC && symbol.st_value != 0) {
            functions.emplace(symbol.st_value, at<char>(file, names + symbol.st_name));
        }
    }
    return functions;
}

Symbols::Functions Symbols::readKernel() {
    Functions functions;
    std::istringstream lines(board::contents("/proc/kallsyms"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        uint64_t address = 0;
        char type = 0;
        std::string name;
        fields >> std::hex >> address >> type >> name;
        if ((type == 't' || type == 'T') && name[0] != '$') {
            functions.emplace(address, name);
        }
    }
    return functions;
}

std::string Symbols::nameIn(const Functions& functions, uint64_t address) {
    const auto after = functions.upper_bound(address);
    return after == functions.begin() ? "?" : std::prev(after)->second;
}

const Symbols::Mapping* Symbols::mappingOf(uint64_t address) const {
    const auto after = mappings.upper_bound(address);
    const bool isMapped = after != mappings.begin() && address < std::prev(after)->second.end;
    return isMapped ? &std::prev(after)->second : nullptr;
}

Place Symbols::inProgram(uint64_t address) const {
    const Mapping* const mapping = mappingOf(address);
    if (mapping == nullptr) {
        return {"?", "?"};
    }
    const auto file = files.find(mapping->file);
    return {mapping->file,
            file == files.end() ? "?" : nameIn(file->second.functions, address - mapping->offset)};
}

bool Symbols::followsSystemCall(uint64_t address) const {
    constexpr uint32_t supervisorCall = 0xd4000001;
    const Mapping* const mapping = mappingOf(address);
    const auto file = mapping == nullptr ? files.end() : files.find(mapping->file);
    uint32_t before = 0;
    // The text of a file is mapped where it is in the file.
    if (file != files.end() && address - mapping->offset <= file->second.bytes.size()) {
        memcpy(&before, file->second.bytes.data() + (address - mapping->offset) - sizeof before,
               sizeof before);
    }
    return before == supervisorCall;
}

Place Symbols::inKernel(uint64_t address) const {
    return {"kernel", nameIn(kernel, address)};
}

}  // namespace bench
