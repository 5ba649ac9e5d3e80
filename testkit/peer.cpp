/* Peers: the names that the test serves, their scripts, and the answers that senders hold. A message is
 * taken under the peer's lock; a handler that it runs, and a fault, come after the lock is released. */
#include <dlfcn.h>
#include <tamo_host.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <list>
#include <mutex>
#include <ostream>
#include <sstream>

#include "msg/message_format.h"
#include "testkit/dispatch.h"

namespace testkit {

namespace {

/* An answer as the library receives it. */
struct Answer {
    OsMsgHeader header = {};
    std::vector<std::max_align_t> body;
};

struct Registry {
    std::mutex mutex;
    std::vector<std::pair<std::string, Peer *>> peers;
    std::vector<Answer *> answers;
    std::atomic<bool> isUsed{false}; /* a test without peers takes no lock */
};

Registry &registry() {
    static Registry *instance = new Registry;
    return *instance;
}

/* A function's name, where the program exports it, or its address. */
std::string nameOf(ConfMsgHandler handler) {
    Dl_info info = {};
    const auto *address = reinterpret_cast<const void *>(handler);
    std::ostringstream text;
    if (handler != nullptr && dladdr(address, &info) != 0 && info.dli_sname != nullptr) {
        text << info.dli_sname;
    } else {
        text << "handler " << address;
    }
    return text.str();
}

Message readMessage(const OsMsgHeader &header, bool waits) {
    Message message = {nullptr, 0, {}, waits};
    const auto *bytes = static_cast<const char *>(header.body);
    if (bytes == nullptr || header.bodyLength < sizeof(ConfMsgBody)) {
        message.data.assign(bytes, bytes == nullptr ? 0 : header.bodyLength);
        return message;
    }
    ConfMsgBody body;
    std::memcpy(&body, bytes, sizeof(body));
    const size_t length =
        std::min<size_t>(body.dataLength, header.bodyLength - sizeof(ConfMsgBody));
    message.handler = body.handler;
    message.param = body.param;
    message.data.assign(bytes + sizeof(ConfMsgBody), length);
    return message;
}

OsMsgHeader *makeAnswer(const OsMsgHeader &request, const Message &message, uint32_t result,
                        const std::string &data) {
    auto *answer = new Answer;
    answer->body.resize((sizeof(ConfMsgBody) + data.size()) / sizeof(std::max_align_t) + 1);
    const ConfMsgBody body = {message.handler, result, message.param,
                              static_cast<uint32_t>(data.size())};
    auto *bytes = reinterpret_cast<char *>(answer->body.data());
    std::memcpy(bytes, &body, sizeof(body));
    std::copy(data.begin(), data.end(), bytes + sizeof(body));
    answer->header = request;
    answer->header.syncFlag = 1;
    answer->header.body = bytes;
    answer->header.bodyLength = static_cast<uint32_t>(sizeof(body) + data.size());
    const std::lock_guard lock(registry().mutex);
    registry().answers.push_back(answer);
    return &answer->header;
}

/* Hangs a list of the sender's own on the message block that `data` holds. */
bool hangList(std::string *data, const std::string &list) {
    if (data->size() < kBlockHead) {
        return false;
    }
    void *block = nullptr;
    if (!list.empty()) {
        const detail::PlatformDepth inside(true);
        block = OsMemMallocSetCharMon(list.size(), 0, 0, 0, __LINE__, "testkit");
    }
    if (block != nullptr) {
        std::copy(list.begin(), list.end(), static_cast<char *>(block));
    }
    const auto size = static_cast<uint32_t>(list.size());
    std::memcpy(data->data() + offsetof(MeetingServerMsgBlock, resultList), &block, sizeof(block));
    std::memcpy(data->data() + offsetof(MeetingServerMsgBlock, resultSize), &size, sizeof(size));
    return block != nullptr || list.empty();
}

Peer *findPeer(const char *name) {
    const auto &peers = registry().peers;
    const auto found = std::find_if(peers.begin(), peers.end(),
                                    [&](const auto &each) { return each.first == name; });
    return found == peers.end() ? nullptr : found->second;
}

}  // namespace

std::ostream &operator<<(std::ostream &out, const Message &message) {
    return out << nameOf(message.handler) << " with parameter " << message.param << " and "
               << message.data.size() << " bytes of data"
               << (message.waits ? ", waited for" : ", not waited for");
}

/* ---- scripts ---- */

Expectation &Expectation::answer(uint32_t result) {
    act_ = Act::kAnswer;
    result_ = result;
    return *this;
}

Expectation &Expectation::answer(uint32_t result, std::string data) {
    hasAnswerData_ = true;
    answerData_ = std::move(data);
    return answer(result);
}

Expectation &Expectation::answerList(uint32_t result, std::string list) {
    hasList_ = true;
    list_ = std::move(list);
    return answer(result);
}

Expectation &Expectation::run() {
    act_ = Act::kRun;
    return *this;
}

Expectation &Expectation::run(std::function<uint32_t(uint32_t, void *, uint32_t)> function) {
    function_ = std::move(function);
    return run();
}

Expectation &Expectation::staySilent() {
    act_ = Act::kStaySilent;
    return *this;
}

Expectation &Expectation::die() {
    act_ = Act::kDie;
    return *this;
}

Expectation &Expectation::times(unsigned count) {
    left_ = count;
    return *this;
}

/* ---- peers ---- */

struct Peer::State {
    std::string name;
    mutable std::mutex mutex;
    mutable std::condition_variable came;
    std::list<Expectation> script; /* those that have come stay, with nothing left */
    std::vector<Message> received;
    bool isDead = false;

    Expectation *next() {
        const auto found = std::find_if(script.begin(), script.end(),
                                        [](const Expectation &each) { return each.left_ > 0; });
        return found == script.end() ? nullptr : &*found;
    }

    static bool fits(const Expectation &expected, const Message &message) {
        return (expected.handler_ == nullptr || expected.handler_ == message.handler) &&
               (expected.anyParam_ || expected.param_ == message.param) &&
               (expected.anyData_ || expected.data_ == message.data);
    }

    std::string describe(const Expectation *expected) const {
        std::ostringstream text;
        if (expected == nullptr) {
            return "no more messages";
        }
        text << (expected->handler_ == nullptr ? "any handler" : nameOf(expected->handler_));
        if (!expected->anyParam_) {
            text << " with parameter " << expected->param_;
        }
        if (!expected->anyData_) {
            text << " and " << expected->data_.size() << " bytes of given data";
        }
        return text.str();
    }
};

Peer::Peer(const char *name) : state_(std::make_unique<State>()) {
    state_->name = name;
    bool isTaken;
    {
        const std::lock_guard lock(registry().mutex);
        isTaken = findPeer(name) != nullptr;
        registry().peers.emplace_back(name, this);
        registry().isUsed = true;
    }
    if (isTaken || state_->name.empty() || state_->name.size() > 15) {
        detail::reportFault("a peer cannot have the name '" + state_->name + "'");
    }
}

Peer::~Peer() {
    {
        const std::lock_guard lock(registry().mutex);
        auto &peers = registry().peers;
        peers.erase(std::find_if(peers.begin(), peers.end(),
                                 [&](const auto &each) { return each.second == this; }));
    }
    const Expectation *next = state_->next();
    if (next != nullptr) {
        detail::reportFault("peer " + state_->name +
                            ": this message did not come: " + state_->describe(next));
    }
}

Expectation &Peer::expect(ConfMsgHandler handler) {
    const std::lock_guard lock(state_->mutex);
    state_->script.emplace_back();
    state_->script.back().handler_ = handler;
    return state_->script.back();
}

Expectation &Peer::expect(ConfMsgHandler handler, uint32_t param) {
    Expectation &expected = expect(handler);
    expected.anyParam_ = false;
    expected.param_ = param;
    return expected;
}

Expectation &Peer::expect(ConfMsgHandler handler, uint32_t param, std::string data) {
    Expectation &expected = expect(handler, param);
    expected.anyData_ = false;
    expected.data_ = std::move(data);
    return expected;
}

void Peer::die() {
    const std::lock_guard lock(state_->mutex);
    state_->isDead = true;
}

void Peer::revive() {
    const std::lock_guard lock(state_->mutex);
    state_->isDead = false;
}

std::vector<Message> Peer::received() const {
    const std::lock_guard lock(state_->mutex);
    return state_->received;
}

bool Peer::done() const {
    const std::lock_guard lock(state_->mutex);
    return state_->next() == nullptr;
}

bool Peer::waitUntilDone(std::chrono::milliseconds limit) const {
    std::unique_lock lock(state_->mutex);
    return state_->came.wait_for(lock, limit, [&] { return state_->next() == nullptr; });
}

uint32_t Peer::take(const OsMsgHeader &header, OsMsgHeader **answer) {
    Message message = readMessage(header, answer != nullptr);
    Expectation act;
    std::string fault;
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->isDead) {
            return TAMO_HOST_NO_RECEIVER;
        }
        Expectation *next = state_->next();
        if (next == nullptr || !State::fits(*next, message)) {
            std::ostringstream text;
            text << "peer " << state_->name << ": not expected: " << message
                 << "; expected: " << state_->describe(next);
            fault = text.str();
        } else {
            act = *next;
            next->left_--;
            state_->isDead = act.act_ == Expectation::Act::kDie;
        }
        state_->received.push_back(message);
        state_->came.notify_all();
    }
    if (!fault.empty()) {
        detail::reportFault(fault);
        return TAMO_HOST_REFUSED;
    }
    uint32_t result = act.result_;
    std::string data = act.hasAnswerData_ ? act.answerData_ : message.data;
    if (act.act_ == Expectation::Act::kRun) {
        void *bytes = data.empty() ? nullptr : data.data();
        const auto length = static_cast<uint32_t>(data.size());
        result = act.function_ ? act.function_(message.param, bytes, length)
                               : message.handler(message.param, bytes, length);
    }
    if (answer == nullptr) {
        return TAMO_HOST_OK;
    }
    if (act.act_ == Expectation::Act::kStaySilent) {
        return TAMO_HOST_TIMEOUT;
    }
    if (act.act_ == Expectation::Act::kDie) {
        return TAMO_HOST_GONE;
    }
    if (act.hasList_ && !hangList(&data, act.list_)) {
        detail::reportFault("peer " + state_->name +
                            ": a result list answers a message block only");
        return TAMO_HOST_REFUSED;
    }
    *answer = makeAnswer(header, message, result, data);
    return TAMO_HOST_OK;
}

namespace detail {

bool peerTakes(const OsMsgHeader *header, OsMsgHeader **answer, uint32_t *result) {
    if (!registry().isUsed.load(std::memory_order_relaxed) || header == nullptr) {
        return false;
    }
    const std::string name(header->receiver, strnlen(header->receiver, sizeof(header->receiver)));
    Peer *peer;
    {
        const std::lock_guard lock(registry().mutex);
        peer = findPeer(name.c_str());
    }
    if (peer != nullptr) {
        *result = peer->take(*header, answer);
    }
    return peer != nullptr;
}

bool peerFrees(OsMsgHeader *answer) {
    if (!registry().isUsed.load(std::memory_order_relaxed)) {
        return false;
    }
    const std::lock_guard lock(registry().mutex);
    auto &answers = registry().answers;
    const auto found = std::find_if(answers.begin(), answers.end(),
                                    [&](const Answer *each) { return &each->header == answer; });
    if (found == answers.end()) {
        return false;
    }
    delete *found;
    answers.erase(found);
    return true;
}

}  // namespace detail

}  // namespace testkit
