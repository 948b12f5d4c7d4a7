#pragma once

namespace krv::media {

/// Receives how far an operation has come.
class ProgressSink {
public:
    virtual ~ProgressSink() = default;
    /// Receives a fraction in [0, 1], which never falls. While the work advances without a measurable change, the same
    /// fraction is reported again, about ten times per second, as a sign of life. 1 is the last report, and only when
    /// the output is complete.
    ///
    /// Called by the threads of the operation, one call at a time, also from within FFmpeg's callbacks; so it must not
    /// throw. It cannot cancel the operation: for that the server kills the worker process.
    virtual void progress(double fraction) noexcept = 0;
};

}  // namespace krv::media
