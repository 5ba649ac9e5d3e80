/* Numbers in texts as C writes them, whatever locale the process has chosen. */
#pragma once
#include <locale.h>

/* The calling thread has the C locale in this scope; other threads notice nothing. For calls of
 * libraries that print or scan floating-point numbers with the C library. */
class ClassicLocale {
  public:
    ClassicLocale() : before_(uselocale(classic())) {}
    ~ClassicLocale() { (void)uselocale(before_); }
    ClassicLocale(const ClassicLocale &) = delete;
    ClassicLocale &operator=(const ClassicLocale &) = delete;

  private:
    /* Made once; where there is no memory for it, null leaves the thread's locale in place. */
    static locale_t classic() {
        static const locale_t made = newlocale(LC_ALL_MASK, "C", nullptr);
        return made;
    }

    locale_t before_;
};
