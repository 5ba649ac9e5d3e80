/* A test as a stranger writes it with the installed test kit: each part of it once. */
#undef NDEBUG
#include <conf_log_adapter.h>
#include <conf_timer.h>
#include <conference_testkit.h>

#include <cassert>
#include <cstdio>

static uint32_t remind(uint32_t param, void *, uint32_t) {
    return param;
}

int main() {
    const testkit::ScratchRoot root;
    testkit::reset();
    testkit::failCall(OsMemMallocSetCharMon, 1);
    assert(GenerateMeetingServerMsgBlock("body", 4) == nullptr);
    assert(testkit::hasRecord(CONF_LOG_ERROR, "conf_msg_api", ""));

    testkit::ManualClock clock;
    testkit::Peer peer("Peer");
    peer.expect(remind, 5).run();
    ConfTimer timer = {};
    ConfCommTimerEntry table[1] = {};
    assert(ConfCommTimerInit(table, 1) == 0);
    assert(ConfTimerInit(&timer, 1, CONF_TIMER_ONE_SHOT, "Peer", remind) == 0);
    assert(ConfTimerStart(&timer, 60000, 5, nullptr, 0) == 0);
    assert(clock.advance(std::chrono::minutes(1)) == 1 && peer.done());
    ConfTimerStop(&timer);
    ConfCommTimerDeInit();
    assert(testkit::outstanding() == 0 && testkit::outstandingBlocks().empty());
    std::puts("consumer: ok");
    return 0;
}
