#pragma once

namespace krv::media {

/// Receives how far an operation has come.
class ProgressSink {
public:
    virtual ~ProgressSink() = default;
    /// fraction is in [0, 1]. It rises and never goes backwards; while work goes on that it cannot measure it
    /// creeps by a few millionths per second, which is the sign of life that whoever waits looks for. 1 comes
    /// last, and only when the output is complete. Called on the operation's thread, at most about ten times
    /// a second beyond visible changes, also from within FFmpeg's call-backs: it must not throw. (An
    /// operation is cancelled by ending the worker process that runs it.)
    virtual void progress(double fraction) noexcept = 0;
};

}  // namespace krv::media
