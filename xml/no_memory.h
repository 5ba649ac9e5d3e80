/* Memory that runs out inside the XML library. For files that are compiled with exceptions. */
#pragma once

/* Runs what may take memory there: the library throws when there is none, and the callers are C
 * functions. */
template <typename Result, typename Action>
Result unlessNoMemory(Result otherwise, Action action) noexcept {
    try {
        return action();
    } catch (...) {
        return otherwise;
    }
}
