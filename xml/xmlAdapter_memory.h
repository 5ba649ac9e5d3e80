#pragma once

/* Runs what may take memory in the XML library, which throws when there is none; the callers are C
 * functions. For files that are compiled with exceptions. */
template <typename Result, typename Action>
Result unlessNoMemory(Result otherwise, Action action) noexcept {
    try {
        return action();
    } catch (...) {
        return otherwise;
    }
}
