/* Rows of the message benchmark, and the transports that a message is compared with. */
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace rivals {

/* One pair of processes. */
struct Row {
    std::string name;
    std::function<void()> serve;     /* the other process: never returns */
    std::function<void()> connect;   /* once, before the first operation */
    std::function<void()> operation; /* what is measured */
    size_t operationsInOne = 1;
};

/* Ends the program with a message when something that must work does not. */
void check(bool good, const char *what);

void pin(int core);

/* The same bytes in a sealed memory file, read where it is mapped. */
void sendFile(int socket, const char *bytes, size_t size);
void receiveFile(int socket, char *bytes, size_t size);

/* 4 bytes there and back over the buses that were there when this was built. */
void addRivals(std::vector<Row> *rows);

}  // namespace rivals
