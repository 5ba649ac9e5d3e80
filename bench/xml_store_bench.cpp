/* What structures in files cost, beside the same documents through TinyXML-2 alone: the library's save
 * is beside an index table and a file made, flushed, renamed and copied without it. The rows take
 * turns; printed is the processor time per element, medians of the rounds, since what the disk does is
 * the same for both. */
#include <fcntl.h>
#include <malloc.h>
#include <tinyxml2.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench/take_turns.h"
#include "include/xml_utility.h"
#include "platform/tamo_os_file.h"
#include "platform/tamo_os_mem.h"

namespace {

constexpr char kFile[] = "/data/bench.xml";
constexpr char kBackup[] = "/data/bench.bak";
constexpr size_t kSizes[] = {100, 1000, 10000, 100000};
constexpr double kMost = 1.2, kMostEncoded = 1.1;

uint32_t values[100000];
size_t count; /* instances, each an element with one field */

void require(bool good) {
    bench::require(good, "a step");
}

/* ---- the library ---- */

std::vector<std::string> names; /* of instances: their numbers have 16 bits only */

ConfXmlNode *describe(int32_t) {
    ConfXmlNode *root = ConfXmlAddSingleStructNode(nullptr, "Root");
    for (size_t at = 0; at < count; at++) {
        ConfXmlNode *item =
            ConfXmlAddMultiStructNode(root, names[at >> 16].c_str(), static_cast<uint16_t>(at));
        char address[24];
        std::snprintf(address, sizeof(address), "%" PRIuPTR,
                      reinterpret_cast<uintptr_t>(&values[at]));
        const ConfXmlValueNodeDesc desc = {"value", "UINT32"};
        ConfXmlValue value = {CONF_XML_ATTR_UINT32, {}, 0};
        value.value.text = address;
        ConfXmlAddSingleValueNode(item, &desc, &value);
    }
    return root;
}

void save() {
    require(ConfXmlSave(describe, kFile, kBackup) == 0);
}

void load() {
    require(ConfXmlLoad(describe, kFile, kBackup) == 0);
}

/* The descriptors' strings belong to the bench, not to what is measured. */
std::vector<ConfXmlNodeDesc> descriptors;
std::vector<std::string> texts;
const ConfXmlAttrDesc kAttribute = {"type", "UINT32"};

void encode() {
    const ConfXmlEncodeDesc desc = {"Root", descriptors.data(), static_cast<uint32_t>(count)};
    char *text = ConfXmlAdptEncode(&desc);
    require(text != nullptr);
    OSMemTypeFreeMon(text, 0, 0, __LINE__, "xml_store_bench");
}

/* ---- TinyXML-2 alone ---- */

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

/* A document as the table (`addresses`) and the file of the library have it. */
void build(XMLDocument *document, bool addresses) {
    XMLElement *root = document->NewElement("cfg");
    document->InsertEndChild(root);
    root->SetAttribute("name", "Root");
    for (size_t at = 0; at < count; at++) {
        XMLElement *item = document->NewElement("cfg");
        root->InsertEndChild(item);
        item->SetAttribute("name", names[at >> 16].c_str());
        item->SetAttribute("InstID", static_cast<uint16_t>(at));
        XMLElement *field = document->NewElement("val");
        item->InsertEndChild(field);
        field->SetAttribute("name", "value");
        field->SetAttribute("type", "UINT32");
        if (addresses) {
            char address[24];
            std::snprintf(address, sizeof(address), "%" PRIuPTR,
                          reinterpret_cast<uintptr_t>(&values[at]));
            field->SetText(address);
        } else {
            field->SetText(values[at]);
        }
    }
}

std::string native(const char *path) {
    char buffer[PATH_MAX];
    require(OsFileNativePath(path, buffer, sizeof(buffer)) != nullptr);
    return buffer;
}

void saveAlone() {
    XMLDocument table;
    build(&table, true);
    XMLDocument document;
    build(&document, false);
    static const std::string path = native("/data/alone.xml");
    static const std::string beside = path + ".new";
    require(document.SaveFile(beside.c_str()) == tinyxml2::XML_SUCCESS);
    const int file = open(beside.c_str(), O_WRONLY);
    require(fdatasync(file) == 0 && close(file) == 0);
    require(rename(beside.c_str(), path.c_str()) == 0);
    require(OsCopyFile("/data/alone.xml", "/data/alone.bak") == 0);
    const int directory = open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY);
    require(fsync(directory) == 0 && close(directory) == 0);
}

void encodeAlone() {
    XMLDocument document;
    XMLElement *root = document.NewElement("Root");
    document.InsertEndChild(root);
    for (size_t at = 0; at < count; at++) {
        XMLElement *item = document.NewElement("val");
        root->InsertEndChild(item);
        item->SetText(texts[at].c_str());
        item->SetAttribute("type", "UINT32");
    }
    tinyxml2::XMLPrinter printer(nullptr, true);
    document.Print(&printer);
    require(printer.CStrSize() > 1);
}

std::string body;

void parse() {
    ConfXmlNode *root = ConfXmlParseBodyGetRoot(body.c_str());
    require(root != nullptr);
    ConfXmlFreeRootNode(root);
}

void parseAlone() {
    XMLDocument document;
    require(document.Parse(body.c_str()) == tinyxml2::XML_SUCCESS);
}

/* ---- rows ---- */

/* After a run that only warms up, and leaves the heap as this row does. */
double processorTime(void (*run)()) {
    run();
    const double begin = bench::nowNs(bench::Clock::kProcessor);
    run();
    return bench::nowNs(bench::Clock::kProcessor) - begin;
}

double median(const std::vector<double> &samples) {
    return bench::percentile(samples, 0.5);
}

/* Two rows in turns. */
void besides(const char *name, double limit, void (*ours)(), void (*alone)(), double elements) {
    std::vector<double> times[2];
    std::vector<double> ratios;
    const size_t rounds = elements > 20000 ? 5 : 15;
    for (size_t round = 0; round < rounds; round++) {
        for (size_t turn = 0; turn < 2; turn++) {
            const size_t row = (round + turn) % 2;
            times[row].push_back(processorTime(row == 0 ? alone : ours) / elements);
        }
        ratios.push_back(times[1].back() / times[0].back());
    }
    const double ratio = median(ratios);
    std::printf("  %-8s %8zu %10.0f %10.0f %8.3f\n", name, count, median(times[1]),
                median(times[0]), ratio);
    bench::figure(
        std::string("A structure in a file, ") + name + ", " + std::to_string(count) + " elements",
        ratio, limit);
}

double loadTime(double elements) {
    std::vector<double> times;
    for (size_t round = 0; round < 3; round++) {
        times.push_back(processorTime(load) / elements);
    }
    std::printf("  %-8s %8zu %10.0f\n", "load", count, median(times));
    return median(times);
}

void prepare(size_t size) {
    count = size;
    descriptors.clear();
    for (size_t at = 0; at < size; at++) {
        descriptors.push_back({"val", texts[at].c_str(), 1, &kAttribute});
    }
    save();
    std::ifstream file(native(kFile));
    body.assign(std::istreambuf_iterator<char>(file), {});
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    /* The heap is kept, as by a process that goes on: what the system asks for pages is the same. The
     * platform sets limits of its own with the first large block. */
    OSMemTypeFreeMon(OsMemMallocSetCharMon(1 << 20, 0, 0, 0, __LINE__, "xml_store_bench"), 0, 0,
                     __LINE__, "xml_store_bench");
    mallopt(M_TRIM_THRESHOLD, INT_MAX);
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    for (uint32_t at = 0; at < 100000; at++) {
        values[at] = at * 40009U;
        texts.push_back(std::to_string(values[at]));
    }
    names = {"item", "next"};
    std::vector<double> loads;
    std::printf("  ns per element %14s %10s %8s\n", "library", "alone", "ratio");
    for (const size_t size : kSizes) {
        prepare(size);
        const auto items = static_cast<double>(size);
        besides("parse", kMost, parse, parseAlone, 2 * items);
        besides("encode", kMostEncoded, encode, encodeAlone, items);
        besides("save", kMost, save, saveAlone, 2 * items);
        loads.push_back(loadTime(2 * items));
    }
    const double growth = loads.back() / *std::min_element(loads.begin(), loads.end());
    bench::figure("A structure in a file, load, the most per element against the least", growth, 3);
    return bench::finish();
}
