/* Code addresses as (build id, offset) and back.
 *
 * The dynamic loader tells which module holds an address without a lock (_dl_find_object); the rest
 * is read from the module's own headers in memory, which the linker puts at the module's begin.
 * What is remembered are guesses that a dlclose may make wrong at any time, so each is checked when
 * it is used: what lies there must still have the build id. */
#include "host/messages/handler_address.h"

#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <link.h>
#include <string.h>

#include <algorithm>

#include "host/base/fast_tls.h"

namespace tamo::messages {

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

/* Build ids of the usual length are compared without a call. */
bool sameBuildId(const uint8_t *a, const uint8_t *b, uint8_t length) {
    uint64_t x[2];
    uint64_t y[2];
    uint32_t restOfX;
    uint32_t restOfY;
    if (length != sizeof(x) + sizeof(restOfX)) {
        return memcmp(a, b, length) == 0;
    }
    memcpy(x, a, sizeof(x));
    memcpy(y, b, sizeof(y));
    memcpy(&restOfX, a + sizeof(x), sizeof(restOfX));
    memcpy(&restOfY, b + sizeof(y), sizeof(restOfY));
    return ((x[0] ^ y[0]) | (x[1] ^ y[1]) | (restOfX ^ restOfY)) == 0;
}

constexpr uint64_t roundUp(uint64_t value) {
    return (value + 3) / 4 * 4;
}

/* The build id in a note segment, and its length; null when it has none. */
const uint8_t *findBuildId(const uint8_t *notes, uint64_t size, uint8_t *length) {
    while (size >= sizeof(ElfW(Nhdr))) {
        ElfW(Nhdr) note;
        memcpy(&note, notes, sizeof(note));
        const uint64_t idBegin = sizeof(note) + roundUp(note.n_namesz);
        const uint64_t end = idBegin + roundUp(note.n_descsz);
        if (end > size) {
            return nullptr;
        }
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == sizeof(kNoteName) &&
            note.n_descsz > 0 && memcmp(notes + sizeof(note), kNoteName, sizeof(kNoteName)) == 0) {
            *length =
                static_cast<uint8_t>(std::min(note.n_descsz, static_cast<ElfW(Word)>(kMaxBuildId)));
            return notes + idBegin;
        }
        notes += end;
        size -= end;
    }
    return nullptr;
}

/* Where a module has its code and its build id, as distances from its begin. */
struct Layout {
    static constexpr unsigned kMaxCode = 2; /* linkers make one executable segment */
    uint64_t codeBegin[kMaxCode];
    uint64_t codeEnd[kMaxCode];
    uint64_t buildIdAt; /* 0: it has none */
    uint8_t buildIdLength;
};

void readLayout(const Module &module, Layout *layout) {
    unsigned count = 0;
    const ElfW(Phdr) *segments = programHeaders(module, &count);
    bool haveFirst = false;
    ElfW(Addr) first = 0; /* the address that the linker gave the module's begin */
    unsigned codes = 0;
    *layout = {};
    for (unsigned i = 0; i < count; ++i) {
        const ElfW(Phdr) &segment = segments[i];
        if (segment.p_type == PT_LOAD && !haveFirst) {
            haveFirst = true;
            first = segment.p_vaddr - static_cast<ElfW(Addr)>(segment.p_offset);
        }
        const uint64_t begin = segment.p_vaddr - first;
        const bool inside = begin < module.size && segment.p_memsz <= module.size - begin;
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0 && inside &&
            codes < Layout::kMaxCode) {
            layout->codeBegin[codes] = begin;
            layout->codeEnd[codes++] = begin + segment.p_memsz;
        }
        if (segment.p_type == PT_NOTE && inside && layout->buildIdAt == 0) {
            const uint8_t *id =
                findBuildId(module.begin + begin, segment.p_memsz, &layout->buildIdLength);
            layout->buildIdAt = id != nullptr ? static_cast<uint64_t>(id - module.begin) : 0;
        }
    }
}

bool isCode(const Layout &layout, uint64_t offset) {
    bool found = false;
    for (unsigned i = 0; i < Layout::kMaxCode; ++i) {
        found |= offset >= layout.codeBegin[i] && offset < layout.codeEnd[i];
    }
    return found;
}

/* The module that this thread asked for last. Its build id, read again each time, tells whether it
 * is still the same: in the module's first page, which is there whatever module it is. */
struct LastModule {
    Module module;
    Layout layout;
    uint8_t buildId[kMaxBuildId];
};
constexpr uint64_t kFirstPage = 4096;
thread_local constinit LastModule lastModule TAMO_FAST_TLS = {};

const Layout &layoutOf(const Module &module) {
    LastModule &last = lastModule;
    const uint8_t *id = module.begin + last.layout.buildIdAt;
    if (last.module.begin == module.begin && last.module.size == module.size &&
        sameBuildId(id, last.buildId, last.layout.buildIdLength)) {
        return last.layout;
    }
    readLayout(module, &last.layout);
    const uint64_t end = last.layout.buildIdAt + last.layout.buildIdLength;
    const bool keep = last.layout.buildIdAt > 0 && end <= kFirstPage;
    last.module = keep ? module : Module{};
    memcpy(last.buildId, module.begin + last.layout.buildIdAt, last.layout.buildIdLength);
    return last.layout;
}

bool sameModule(const CodePlace &a, const CodePlace &b) {
    return a.buildIdLength == b.buildIdLength && sameBuildId(a.buildId, b.buildId, a.buildIdLength);
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
        if (segment.p_type != PT_NOTE) {
            continue;
        }
        const auto *notes = reinterpret_cast<const uint8_t *>(info->dlpi_addr + segment.p_vaddr);
        uint8_t length = 0;
        const uint8_t *id = findBuildId(notes, segment.p_memsz, &length);
        /* Any address of the module tells where it begins. */
        dl_find_object object;
        if (id != nullptr && length == search->place->buildIdLength &&
            sameBuildId(id, search->place->buildId, length) &&
            _dl_find_object(const_cast<uint8_t *>(id), &object) == 0) {
            search->begin = static_cast<const uint8_t *>(object.dlfo_map_start);
            return 1;
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
    const Layout &layout = layoutOf({begin, static_cast<uint64_t>(end - begin)});
    place->offset = static_cast<uint64_t>(static_cast<const uint8_t *>(address) - begin);
    place->buildIdLength = layout.buildIdLength;
    memcpy(place->buildId, begin + layout.buildIdAt, layout.buildIdLength);
    if (!isCode(layout, place->offset)) {
        return PlaceResult::kNotCode;
    }
    return layout.buildIdLength > 0 ? PlaceResult::kFound : PlaceResult::kNoBuildId;
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

}  // namespace tamo::messages
