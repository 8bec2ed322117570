#pragma once

namespace utilia::test {

// Sets the wall clock of this process, as far as it asks for it and has timers on it: so many seconds off the machine's.
// Who asked to be told of it (TFD_TIMER_CANCEL_ON_SET) is told; timers that wait go by the new time. So it looks also
// after the machine has slept. For programs that link utilia_set_clock.
//
// Threads: any.
void setClock(double secondsOff);

}  // namespace utilia::test
