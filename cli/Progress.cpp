#include "Progress.h"

#include <algorithm>

namespace recsearch {

namespace {
constexpr std::chrono::milliseconds kRedrawEvery{100};
}

Progress::Progress(bool enabled, TimePoint from, TimePoint to)
    : enabled_(enabled),
      forward_(!earlier(to, from)),
      from_(toSeconds(from)),
      to_(toSeconds(to)),
      started_(std::chrono::steady_clock::now())
{
}

void Progress::fitTo(TimePoint first, TimePoint last)
{
    const double lo = toSeconds(first), hi = toSeconds(last);
    if (forward_) {
        from_ = std::max(from_, lo);
        to_ = std::min(to_, hi);
    } else {
        from_ = std::min(from_, hi);
        to_ = std::max(to_, lo);
    }
}

void Progress::reached(TimePoint t, std::size_t results)
{
    reached_ = t;
    results_ = results;
    tick();
}

void Progress::tick()
{
    if (!enabled_) return;
    const auto now = std::chrono::steady_clock::now();
    if (now - lastDraw_ < kRedrawEvery) return;
    lastDraw_ = now;
    draw();
}

void Progress::draw()
{
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
    std::fprintf(stderr, "\r\033[K");
    if (reached_) {
        const double span = to_ - from_;
        double done = span == 0 ? 1.0 : (toSeconds(*reached_) - from_) / span;
        done = std::clamp(done, 0.0, 1.0);
        std::fprintf(stderr, "searching %3.0f%%  at %s  %zu results  %.1f s", done * 100.0,
                     isoText(*reached_).c_str(), results_, elapsed);
    } else {
        std::fprintf(stderr, "searching  %zu results  %.1f s", results_, elapsed);
    }
    std::fflush(stderr);
    shown_ = true;
}

void Progress::clear()
{
    if (!shown_) return;
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
    shown_ = false;
}

}  // namespace recsearch
