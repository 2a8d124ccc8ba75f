#include "tk/inquiry.h"

#include <utility>

#include "tk/looper.h"

namespace tk {

void Inquiry::start(const message& request, std::uint32_t command, std::uint32_t timeout) {
    message failure = getLooper()->ask(request, command, *this, number);
    const bool failed = isError(failure);
    outcome = failed ? std::move(failure) : errorMsg(error::timedOut, "timed out");
    timer.arm(failed ? 0 : timeout / tickMilliseconds);
}

void Inquiry::end(const message& how) {
    number = 0;  // the loop has forgotten it
    timer.disarm();
    owner.inquiryEnded(how);  // may delete this
}

void Inquiry::expired() {
    withdraw();
    const message how = std::move(outcome);
    owner.inquiryEnded(how);  // may delete this
}

void Inquiry::withdraw() {
    if (number != 0) getLooper()->forget(number);
    number = 0;
}

}  // namespace tk
