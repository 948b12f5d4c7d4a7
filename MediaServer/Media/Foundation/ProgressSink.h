#pragma once

namespace krv::media {

/// Receives how far an operation has come.
class ProgressSink {
public:
    virtual ~ProgressSink() = default;
    /// Receives a fraction in [0, 1], which never falls. 1 comes last, and only when the output is complete. If the
    /// progress of the work cannot be measured, the fraction creeps by a few millionths per second. That is the sign of
    /// life that a waiting client looks for. Besides visible changes there are about ten calls per second at most.
    ///
    /// Called by the threads of the operation, one call at a time, also from within FFmpeg's callbacks; so it must not
    /// throw. It cannot cancel the operation: for that the server kills the worker process.
    virtual void progress(double fraction) noexcept = 0;
};

}  // namespace krv::media
