/* Build ids: see elf_note.h. One note of one segment is wanted, which is less than libelf asks of its
 * users. */
#include "elf_note.h"

#include <elf.h>
#include <link.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

namespace tamoctl {

namespace {

template <typename Thing>
bool readAt(std::ifstream &file, uint64_t offset, Thing *thing) {
    file.seekg(static_cast<std::streamoff>(offset));
    return static_cast<bool>(file.read(reinterpret_cast<char *>(thing), sizeof(*thing)));
}

size_t padded(size_t size) {
    return (size + 3) & ~size_t{3};
}

/* The build id among the notes of a segment. */
std::string findBuildId(const std::vector<char> &notes) {
    ElfW(Nhdr) head;
    for (size_t at = 0; at + sizeof(head) <= notes.size();) {
        memcpy(&head, notes.data() + at, sizeof(head));
        const size_t text = at + sizeof(head) + padded(head.n_namesz);
        if (text > notes.size() || head.n_descsz > notes.size() - text) {
            return "";
        }
        if (head.n_type == NT_GNU_BUILD_ID && head.n_namesz == 4 &&
            memcmp(notes.data() + at + sizeof(head), "GNU", 4) == 0) {
            std::string id;
            char digits[4];
            for (size_t byte = 0; byte < head.n_descsz; byte++) {
                snprintf(digits, sizeof(digits), "%02x",
                         static_cast<unsigned char>(notes[text + byte]));
                id += digits;
            }
            return id;
        }
        at = text + padded(head.n_descsz);
    }
    return "";
}

}  // namespace

std::string buildIdOf(const std::string &path) {
    constexpr size_t kMostNotes = 1 << 20;
    std::ifstream file(path, std::ios::binary);
    ElfW(Ehdr) head;
    constexpr unsigned char kOurs = sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32;
    if (!readAt(file, 0, &head) || memcmp(head.e_ident, ELFMAG, SELFMAG) != 0 ||
        head.e_ident[EI_CLASS] != kOurs) {
        return "";
    }
    for (size_t at = 0; at < head.e_phnum; at++) {
        ElfW(Phdr) segment;
        if (!readAt(file, head.e_phoff + at * sizeof(segment), &segment)) {
            return "";
        }
        if (segment.p_type != PT_NOTE || segment.p_filesz > kMostNotes) {
            continue;
        }
        std::vector<char> notes(segment.p_filesz);
        file.seekg(static_cast<std::streamoff>(segment.p_offset));
        file.read(notes.data(), static_cast<std::streamsize>(notes.size()));
        std::string id = file ? findBuildId(notes) : "";
        file.clear();
        if (!id.empty()) {
            return id;
        }
    }
    return "";
}

}  // namespace tamoctl
