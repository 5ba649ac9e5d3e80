/* Code addresses as (build id, offset) and back.
 *
 * The dynamic loader tells which module holds an address without a lock (_dl_find_object); the rest
 * is read from the module's own headers in memory, which the linker puts at the module's begin. So
 * nothing is cached that a dlclose could make wrong: the receiver's guesses only say where to look,
 * and what lies there must have the build id that the message named. */
#include "message_handler.h"

#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <link.h>
#include <string.h>

#include <algorithm>

namespace tamo {

namespace {

constexpr char kNoteName[] = "GNU";

/* A loaded module: the bytes from its ELF header on. */
struct Module {
    const uint8_t *begin;
    uint64_t size;
};

/* The module's program headers; null when they are not where a linker puts them. */
const ElfW(Phdr) * programHeaders(const Module &module, unsigned *count) {
    const auto *header = reinterpret_cast<const ElfW(Ehdr) *>(module.begin);
    if (module.size < sizeof(*header) || memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 ||
        header->e_phentsize != sizeof(ElfW(Phdr)) || header->e_phoff > module.size ||
        header->e_phnum > (module.size - header->e_phoff) / sizeof(ElfW(Phdr))) {
        return nullptr;
    }
    *count = header->e_phnum;
    return reinterpret_cast<const ElfW(Phdr) *>(module.begin + header->e_phoff);
}

constexpr uint64_t roundUp(uint64_t value) {
    return (value + 3) / 4 * 4;
}

/* Takes the build id out of one note segment. */
bool readBuildId(const uint8_t *notes, uint64_t size, CodePlace *place) {
    while (size >= sizeof(ElfW(Nhdr))) {
        ElfW(Nhdr) note;
        memcpy(&note, notes, sizeof(note));
        const uint64_t idBegin = sizeof(note) + roundUp(note.n_namesz);
        const uint64_t end = idBegin + roundUp(note.n_descsz);
        if (end > size) {
            return false;
        }
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == sizeof(kNoteName) &&
            memcmp(notes + sizeof(note), kNoteName, sizeof(kNoteName)) == 0) {
            place->buildIdLength =
                static_cast<uint8_t>(std::min(note.n_descsz, static_cast<ElfW(Word)>(kMaxBuildId)));
            memcpy(place->buildId, notes + idBegin, place->buildIdLength);
            return place->buildIdLength > 0;
        }
        notes += end;
        size -= end;
    }
    return false;
}

/* Describes the code at `offset` of a module. */
PlaceResult placeInModule(const Module &module, uint64_t offset, CodePlace *place) {
    unsigned count = 0;
    const ElfW(Phdr) *segments = programHeaders(module, &count);
    bool executable = false;
    bool haveFirst = false;
    ElfW(Addr) first = 0; /* the address that the linker gave the module's begin */
    place->buildIdLength = 0;
    for (unsigned i = 0; i < count; ++i) {
        const ElfW(Phdr) &segment = segments[i];
        if (segment.p_type == PT_LOAD && !haveFirst) {
            haveFirst = true;
            first = segment.p_vaddr - static_cast<ElfW(Addr)>(segment.p_offset);
        }
        const uint64_t begin = segment.p_vaddr - first;
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
            executable |= offset >= begin && offset - begin < segment.p_memsz;
        }
    }
    for (unsigned i = 0; i < count && executable && place->buildIdLength == 0; ++i) {
        const uint64_t begin = segments[i].p_vaddr - first;
        if (segments[i].p_type == PT_NOTE && begin < module.size &&
            segments[i].p_memsz <= module.size - begin) {
            (void)readBuildId(module.begin + begin, segments[i].p_memsz, place);
        }
    }
    place->offset = offset;
    if (!executable) {
        return PlaceResult::kNotCode;
    }
    return place->buildIdLength > 0 ? PlaceResult::kFound : PlaceResult::kNoBuildId;
}

bool sameModule(const CodePlace &a, const CodePlace &b) {
    return a.buildIdLength == b.buildIdLength && memcmp(a.buildId, b.buildId, a.buildIdLength) == 0;
}

const void *codeAt(const uint8_t *begin, const CodePlace &place) {
    if (place.offset > UINTPTR_MAX - reinterpret_cast<uintptr_t>(begin)) {
        return nullptr;
    }
    const void *address = begin + place.offset;
    CodePlace found;
    const bool isThere = placeOfCode(address, &found) == PlaceResult::kFound &&
                         found.offset == place.offset && sameModule(found, place);
    return isThere ? address : nullptr;
}

struct Search {
    const CodePlace *place;
    const uint8_t *begin;
};

/* Looks at one loaded module; 1 ends the walk. */
int visitModule(dl_phdr_info *info, size_t, void *context) {
    auto *search = static_cast<Search *>(context);
    for (unsigned i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr) &segment = info->dlpi_phdr[i];
        CodePlace note = {};
        if (segment.p_type == PT_NOTE &&
            readBuildId(reinterpret_cast<const uint8_t *>(info->dlpi_addr + segment.p_vaddr),
                        segment.p_memsz, &note) &&
            sameModule(note, *search->place)) {
            /* Any address of the module tells where it begins. */
            dl_find_object object;
            auto *inside = reinterpret_cast<void *>(info->dlpi_addr + segment.p_vaddr);
            if (_dl_find_object(inside, &object) == 0) {
                search->begin = static_cast<const uint8_t *>(object.dlfo_map_start);
                return 1;
            }
        }
    }
    return 0;
}

}  // namespace

PlaceResult placeOfCode(const void *address, CodePlace *place) {
    dl_find_object object;
    if (_dl_find_object(const_cast<void *>(address), &object) != 0) {
        return PlaceResult::kNotCode;
    }
    const auto *begin = static_cast<const uint8_t *>(object.dlfo_map_start);
    const auto *end = static_cast<const uint8_t *>(object.dlfo_map_end);
    const Module module = {begin, static_cast<uint64_t>(end - begin)};
    const auto offset = static_cast<uint64_t>(static_cast<const uint8_t *>(address) - begin);
    return placeInModule(module, offset, place);
}

const char *moduleNameOf(const void *address) {
    dl_find_object object;
    if (_dl_find_object(const_cast<void *>(address), &object) != 0) {
        return "no module";
    }
    const char *name = object.dlfo_link_map->l_name;
    return name != nullptr && *name != '\0' ? name : program_invocation_name;
}

const void *codeAtPlace(const CodePlace &place, ModuleGuesses *guesses) {
    for (unsigned i = 0; i < ModuleGuesses::kCount; ++i) {
        if (guesses->begins[i] != nullptr && sameModule(guesses->modules[i], place)) {
            const void *address = codeAt(guesses->begins[i], place);
            if (address != nullptr) {
                return address;
            }
            guesses->begins[i] = nullptr;
        }
    }
    Search search = {&place, nullptr};
    dl_iterate_phdr(visitModule, &search);
    if (search.begin == nullptr) {
        return nullptr;
    }
    const void *address = codeAt(search.begin, place);
    if (address != nullptr) {
        guesses->modules[guesses->next] = place;
        guesses->begins[guesses->next] = search.begin;
        guesses->next = (guesses->next + 1) % ModuleGuesses::kCount;
    }
    return address;
}

}  // namespace tamo
