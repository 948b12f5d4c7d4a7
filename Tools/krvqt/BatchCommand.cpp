#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "BatchDisplay.h"
#include "BatchList.h"
#include "BatchResults.h"
#include "BatchWork.h"
#include "Commands.h"
#include "FailureText.h"
#include "FileOperation.h"
#include "Interruption.h"
#include "Output.h"
#include "Paths.h"

namespace krvqt {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using State = BatchResults::State;

constexpr unsigned kMostAtOnce = 64;

struct BatchOptions {
    std::string list;
    /// How many run at a time; 0: one per processor.
    unsigned jobs = 0;
    std::optional<std::string> results;
    /// "LINE" or "LINE-LINE".
    std::optional<std::string> only;
    /// "K/N": the jobs of the Kth of N tasks.
    std::optional<std::string> task;
    bool force = false;
    bool skipFailed = false;
};

/// Two numbers with a character between them. The second one may be missing and is then the first.
struct Pair {
    std::size_t first = 0;
    std::size_t second = 0;
};

std::optional<Pair> pairFrom(std::string_view text, char between) {
    const auto number = [](std::string_view digits) -> std::optional<std::size_t> {
        std::size_t value = 0;
        const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        return failure == std::errc() && end == digits.data() + digits.size() && value > 0 ? std::optional(value)
                                                                                           : std::nullopt;
    };
    const auto place = text.find(between);
    const auto first = number(text.substr(0, place));
    const auto second = place == std::string_view::npos ? first : number(text.substr(place + 1));
    return first && second ? std::optional(Pair{*first, *second}) : std::nullopt;
}

/// Reports why nothing was started.
ExitStatus refuse(const std::string& list, const std::vector<std::string>& problems, const CommonOptions& common) {
    constexpr std::size_t kMostShown = 20;
    if (common.json) {
        printJSON({{"operation", "batch"},
                   {"status", "failed"},
                   {"list", list},
                   {"error",
                    {{"kind", krv::Failure::nameOf(krv::Failure::Kind::BadArgument)},
                     {"code", 0},
                     {"description", fmt::format("Nothing was started, because {} cannot be used.", list)},
                     {"reason", problems.front()}}},
                   {"problems", problems}});
    }
    for (std::size_t i = 0; i < std::min(problems.size(), kMostShown); ++i) {
        say("krvqt: {}: {}\n", list, problems[i]);
    }
    if (problems.size() > kMostShown) {
        say("krvqt: {}: and {} more problems\n", list, problems.size() - kMostShown);
    }
    return kUsage;
}

/// Leaves only the jobs that the options select. Returns what is wrong with the options.
std::string select(BatchList& list, const BatchOptions& options) {
    if (options.only) {
        const auto lines = pairFrom(*options.only, '-');
        if (!lines || lines->first > lines->second || lines->second > list.lines) {
            return fmt::format("--only takes a line of the list, such as 7, or a range, such as 7-12; it has {} lines",
                               list.lines);
        }
        std::erase_if(list.jobs,
                      [&](const BatchJob& job) { return job.line < lines->first || job.line > lines->second; });
    }
    if (options.task) {
        const auto task = pairFrom(*options.task, '/');
        if (!task || options.task->find('/') == std::string::npos || task->first > task->second) {
            return "--task takes the number of a task and how many there are, such as 3/8";
        }
        std::size_t number = 0;
        std::erase_if(list.jobs, [&](const BatchJob&) { return number++ % task->second != task->first - 1; });
    }
    return {};
}

bool destinationExists(const BatchJob& job) {
    std::error_code failure;
    const fs::path destination(job.destination);
    return job.command == "thumbnails" ? fs::exists(destination / "thumbnail-0001.jpg", failure)
                                       : fs::exists(fs::symlink_status(destination, failure));
}

/// The run of a batch: keeps a number of jobs running, and notes their ends. For the main thread.
class Batch {
public:
    Batch(std::vector<BatchJob> jobs, unsigned atOnce, BatchResults& results, const CommonOptions& common)
        : jobs_(std::move(jobs))
        , atOnce_(atOnce)
        , results_(results)
        , common_(common)
        , media_(media(common))
        , display_(common.quiet, jobs_.size()) {}

    /// Returns when all jobs have ended that were started.
    void run() {
        startMore();
        if (!running_.empty()) {
            krv::RunLoop::main().run();
        }
        display_.makeRoom();
    }

    void say(const std::string& message) { display_.say(message); }
    [[nodiscard]] std::size_t done() const { return done_; }
    [[nodiscard]] std::size_t failed() const { return failed_; }
    [[nodiscard]] krv::Seconds elapsed() const { return display_.elapsed(); }
    /// Why the batch has ended before its last job; kDone if it has not.
    [[nodiscard]] ExitStatus stopped() const { return stopped_; }

private:
    struct Running {
        std::shared_ptr<void> handle;
        krv::Clock::TimePoint since;
    };

    void startMore() {
        while (stopped_ == kDone && running_.size() < atOnce_ && next_ < jobs_.size()) {
            if (Interruption::token().stop_requested()) {
                stopped_ = kCancelled;
                return;
            }
            start(jobs_[next_++]);
        }
    }

    void start(const BatchJob& job) {
        if (!job.destination.empty() && !note(BatchResults::row(job, "started"), true)) {
            return;
        }
        const std::string& file = job.destination.empty() ? job.sources.front() : job.destination;
        display_.start(job.line, fs::path(file).filename().string());
        Running& running = running_[job.line];
        running.since = krv::Clock::steady().now();
        running.handle = startBatchJob(
            media_, job, [this, line = job.line](const krv::Progress& progress) { display_.show(line, progress); },
            [this, &job](const BatchOutcome& outcome) { end(job, outcome); });
    }

    void end(const BatchJob& job, const BatchOutcome& outcome) {
        const auto its = running_.extract(job.line);
        // Not here, in the job's own callback.
        krv::RunLoop::main().perform([handle = its.mapped().handle] {});
        const krv::Seconds took = krv::Clock::steady().now() - its.mapped().since;
        const auto kind = outcome.failure ? std::optional(outcome.failure->kind()) : std::nullopt;
        const bool cancelled = kind == krv::Failure::Kind::Cancelled;
        const bool withoutServer = kind == krv::Failure::Kind::Unreachable;
        // Without a server nothing is known against the job.
        Json row = BatchResults::row(job, !kind ? "done" : cancelled || withoutServer ? "cancelled" : "failed");
        row["seconds"] = took.count();
        row.update(outcome.details);
        if (outcome.failure && !cancelled) {
            row["error"] = failureJSON(*outcome.failure);
        }
        display_.end(job.line, !kind);
        report(job, outcome, row);
        if (stopped_ == kDone && (cancelled || withoutServer)) {
            stopped_ = cancelled ? kCancelled : kNoServer;
        }
        (void)note(row, !job.destination.empty());
        startMore();
        if (running_.empty()) {
            krv::RunLoop::main().stop();
        }
    }

    void report(const BatchJob& job, const BatchOutcome& outcome, const Json& row) {
        done_ += outcome.failure ? 0U : 1U;
        failed_ += row["status"] == "failed" ? 1U : 0U;
        if (row.contains("error")) {
            display_.say(fmt::format("line {}: {}", job.line, failureText(*outcome.failure)));
        }
        if (common_.json) {
            printJSON(row);
        } else if (!outcome.failure && !job.destination.empty()) {
            display_.makeRoom();
            printPath(job.destination);
        }
    }

    /// Returns whether the row has been written. If not, the batch ends: a job whose end is not noted would be repeated.
    bool note(const Json& row, bool durable) {
        if (stopped_ == kFailed) {
            return false;
        }
        try {
            results_.append(row, durable);
            return true;
        } catch (const std::system_error& problem) {
            display_.say(fmt::format("Cannot write the results: {}.", problem.what()));
            stopped_ = kFailed;
            return false;
        }
    }

    const std::vector<BatchJob> jobs_;
    const unsigned atOnce_;
    BatchResults& results_;
    const CommonOptions& common_;
    const krv::Media media_;
    BatchDisplay display_;
    std::map<std::size_t, Running> running_;
    std::size_t next_ = 0;
    std::size_t done_ = 0;
    std::size_t failed_ = 0;
    ExitStatus stopped_ = kDone;
};

std::string resultsPath(const BatchOptions& options) {
    return options.results ? *options.results : fs::path(options.list).replace_extension(".results.jsonl").string();
}

/// The jobs that remain, and the number of those that an earlier run has finished.
struct Rest {
    std::vector<BatchJob> jobs;
    std::size_t doneEarlier = 0;
    std::size_t failedEarlier = 0;
    std::vector<std::string> problems;
};

Rest restOf(const BatchList& list, const BatchResults& results, const BatchOptions& options) {
    Rest rest;
    for (const BatchJob& job : list.jobs) {
        const State state = results.stateOf(job);
        if (state == State::Done) {
            ++rest.doneEarlier;
        } else if (state == State::Failed && options.skipFailed) {
            ++rest.failedEarlier;
        } else {
            // What a job left behind that was interrupted is its own: there was no such file when it was started.
            const bool own = state == State::Interrupted || state == State::Cancelled;
            if (!job.destination.empty() && !own && !job.force && !options.force && destinationExists(job)) {
                rest.problems.push_back(
                    fmt::format("Line {}: {} exists; use \"force\": true in the line, or --force, to replace it.",
                                job.line, job.destination));
            }
            rest.jobs.push_back(job);
        }
    }
    return rest;
}

std::string summaryOf(const Batch& batch, const Rest& rest, const std::string& results) {
    const auto part = [](std::size_t count, const char* what) {
        return count > 0 ? fmt::format(", {} {}", count, what) : std::string();
    };
    const std::size_t left = rest.jobs.size() - batch.done() - batch.failed();
    return fmt::format("{} of {} jobs done{}{}{}{} in {:.1f} s; the results are in {}", batch.done(), rest.jobs.size(),
                       part(batch.failed(), "failed"), part(left, "left"), part(rest.doneEarlier, "done earlier"),
                       part(rest.failedEarlier, "failed earlier"), batch.elapsed().count(), results);
}

ExitStatus run(const BatchList& list, const BatchOptions& options, const CommonOptions& common) {
    const std::string path = resultsPath(options);
    BatchResults results(path);
    Rest rest = restOf(list, results, options);
    if (!rest.problems.empty()) {
        return refuse(options.list, rest.problems, common);
    }
    const unsigned atOnce = options.jobs > 0 ? options.jobs : std::max(1U, std::thread::hardware_concurrency());
    Batch batch(rest.jobs, atOnce, results, common);
    batch.run();
    if (!common.quiet) {
        batch.say(summaryOf(batch, rest, path));
    }
    if (batch.stopped() != kDone) {
        return batch.stopped();
    }
    return batch.failed() + rest.failedEarlier > 0 ? kFailed : kDone;
}

void describe(CLI::App& command, BatchOptions& options) {
    command.add_option("list", options.list, "the list of jobs: one JSON object per line")
        ->required()
        ->type_name("LIST");
    command.add_option("--jobs", options.jobs, "how many run at a time; by default one per processor")
        ->type_name("N")
        ->check(CLI::Range(1U, kMostAtOnce));
    command.add_option("--results", options.results, "the file for the results; by default beside the list")
        ->type_name("FILE");
    command.add_option("--only", options.only, "run only the jobs on these lines of the list")
        ->type_name("LINE[-LINE]");
    command.add_option("--task", options.task, "run only every Nth job, from the Kth on")->type_name("K/N");
    command.add_flag("--skip-failed", options.skipFailed, "do not try again what failed in an earlier run");
    addForce(command, options.force);
}

/// Runs the jobs of a list that have not been done yet, and notes what has come of each.
ExitStatus runBatch(const BatchOptions& options, const CommonOptions& common) {
    std::ifstream in(options.list, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    if (!in) {
        return refuse(options.list, {fmt::format("The list cannot be read: {}.", std::strerror(errno))}, common);
    }
    std::error_code failure;
    if (fs::equivalent(options.list, resultsPath(options), failure)) {
        return refuse(options.list, {"The results would be written to the list itself."}, common);
    }
    BatchList list = parseBatchList(text, fs::current_path(failure));
    if (!list.problems.empty()) {
        return refuse(options.list, list.problems, common);
    }
    if (const std::string problem = select(list, options); !problem.empty()) {
        return refuse(options.list, {problem}, common);
    }
    try {
        return run(list, options, common);
    } catch (const std::system_error& problem) {
        say("krvqt: Cannot write the results: {}.\n", problem.what());
        return kFailed;
    }
}

}  // namespace

void addBatch(CommandLine& line) {
    const auto options = std::make_shared<BatchOptions>();
    describe(line.add("batch", "run a list of jobs, several at a time",
                      [options](const CommonOptions& common) { return runBatch(*options, common); }),
             *options);
}

}  // namespace krvqt
