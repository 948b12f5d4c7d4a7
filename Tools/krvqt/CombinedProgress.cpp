#include "CombinedProgress.h"

#include <algorithm>

namespace krvqt {
namespace {

using State = krv::Progress::State;

bool hasStarted(const krv::Progress& progress) {
    return progress.state == State::Running || progress.state == State::Finishing;
}

}  // namespace

krv::Progress combinedProgress(const std::vector<krv::Progress>& jobs, krv::Seconds elapsed) {
    constexpr double kLeastForEstimate = 0.01;
    krv::Progress all;
    for (const krv::Progress& job : jobs) {
        all.fraction += job.fraction / static_cast<double>(jobs.size());
        all.attempt = std::max(all.attempt, job.attempt);
        all.state = std::max(all.state, std::min(job.state, State::Running));
        all.waitingFor = all.waitingFor.empty() ? job.waitingFor : all.waitingFor;
        if (job.position) {
            all.position = std::min(job.position, all.position ? all.position : job.position);
        }
    }
    all.elapsed = elapsed;
    if (all.state != State::WaitingForServer) {
        all.waitingFor.clear();
    }
    if (all.fraction > kLeastForEstimate) {
        all.remaining = elapsed * ((1 - all.fraction) / all.fraction);
    }
    return all;
}

CombinedProgress::CombinedProgress(std::size_t jobs, bool quiet)
    : display_(quiet)
    , jobs_(jobs)
    , ended_(jobs) {}

void CombinedProgress::show(std::size_t job, const krv::Progress& progress) {
    if (ended_[job]) {
        return;
    }
    if (start_ == std::chrono::steady_clock::time_point() && hasStarted(progress)) {
        start_ = std::chrono::steady_clock::now();
    }
    jobs_[job] = progress;
    display_.show(combined());
}

void CombinedProgress::ended(std::size_t job, bool completed) {
    ended_[job] = true;
    allCompleted_ = allCompleted_ && completed;
    jobs_[job].state = State::Running;
    jobs_[job].fraction = 1;
    if (std::find(ended_.begin(), ended_.end(), false) == ended_.end()) {
        display_.finish(allCompleted_);
    } else {
        display_.erase();
    }
}

krv::Progress CombinedProgress::combined() const {
    if (jobs_.size() == 1) {
        return jobs_.front();
    }
    const bool started = start_ != std::chrono::steady_clock::time_point();
    return combinedProgress(jobs_, started ? krv::Seconds(std::chrono::steady_clock::now() - start_) : krv::Seconds(0));
}

}  // namespace krvqt
