#include <utility>

#include <KRVQTProcessClient/Jobs/JobEngine.h>
#include <KRVQTProcessClient/Jobs/Media.h>

namespace krv {

class Media::Implementation {
public:
    explicit Implementation(Settings settings)
        : settings_(settings)
        , launching_(settings.launch == Launch::IfMissing ? &JobEngine::launching() : nullptr) {}

    /// Starts a media operation, or ends the job at once if its options are invalid.
    template <typename T, typename Options>
    Job<T> start(Options options) const {
        auto state = std::make_shared<JobState>(std::move(options.onProgress), options.control);
        auto plan = planOf(options);
        if (plan) {
            engine().add(state, *std::move(plan),
                         {.stall = duration(options.control.stallTimeout), .patience = duration(settings_.patience)});
        } else {
            state->end({.value = nullptr, .failure = plan.error()});
        }
        return Job<T>(std::move(state));
    }

    template <typename T>
    Job<T> control(const JobControl& control, ControlPlan (*makePlan)()) const {
        auto state = std::make_shared<JobState>(ProgressCallback(), control);
        JobEngine::looking().add(state, makePlan, duration(settings_.patience));
        return Job<T>(std::move(state));
    }

private:
    static Clock::Duration duration(Seconds seconds) { return durationFromSeconds(seconds.count()); }
    [[nodiscard]] JobEngine& engine() const { return launching_ ? *launching_ : JobEngine::looking(); }

    const Settings settings_;
    JobEngine* const launching_;
};

Media::Media()
    : Media(Settings{}) {}

Media::Media(Settings settings)
    : implementation_(std::make_shared<Implementation>(settings)) {}

Media::~Media() = default;
Media::Media(const Media&) = default;
Media& Media::operator=(const Media&) = default;

Job<Converted> Media::convert(ConvertOptions options) const {
    return implementation_->start<Converted>(std::move(options));
}

Job<Converted> Media::flatten(FlattenOptions options) const {
    return implementation_->start<Converted>(std::move(options));
}

Job<Converted> Media::mixToStereo(MixToStereoOptions options) const {
    return implementation_->start<Converted>(std::move(options));
}

Job<Merged> Media::merge(MergeOptions options) const {
    return implementation_->start<Merged>(std::move(options));
}

Job<Thumbnails> Media::thumbnails(ThumbnailOptions options) const {
    return implementation_->start<Thumbnails>(std::move(options));
}

Job<MovieInfo> Media::info(InfoOptions options) const {
    return implementation_->start<MovieInfo>(std::move(options));
}

Job<InterestingTimes> Media::interestingTimes(InterestingTimesOptions options) const {
    return implementation_->start<InterestingTimes>(std::move(options));
}

Job<ServerStatus> Media::serverStatus(JobControl control) const {
    return implementation_->control<ServerStatus>(control, serverStatusPlan);
}

Job<Done> Media::cancelAllWork(JobControl control) const {
    return implementation_->control<Done>(control, cancelAllWorkPlan);
}

Job<Done> Media::shutDownServer(JobControl control) const {
    return implementation_->control<Done>(control, shutDownServerPlan);
}

}  // namespace krv
