#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Client/OperationWait.h>
#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Guarded.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>
#include <KRVQTProcessClient/Platform/Clock.h>
#include <KRVQTProcessClient/Transports/KRVOperationTransport.h>

namespace krv {

/// Sends one operation over a transport.
///
/// Failures are reported in two ways. A transport exception that means "server unreachable" propagates unchanged, so
/// that the caller may wait and retry. Any other exception becomes an error record in the caller's out-parameter. A
/// missing reply, or one that is not an operation record, throws Exception "TransportCheck".
///
/// An invocation serves one call on one thread, which it blocks. With a null transport (that of a client after cleanUp)
/// every reply is missing. Null records are tolerated everywhere, and named "(null)".
class KRV_EXPORT TransportInvocation {
public:
    using Ref = std::shared_ptr<TransportInvocation>;
    using Transport = std::shared_ptr<KRVTransport>;
    using Reply = std::shared_ptr<const Data>;

    /// The clock measures stalls and sleeps between polls. It must outlive the invocation.
    [[nodiscard]] static Ref invocationWith(KRVOperationBase::Ref operation, Clock& clock = Clock::steady());
    explicit TransportInvocation(Clock& clock = Clock::steady());

    [[nodiscard]] KRVOperationBase::Ref input() const;
    void setInput(KRVOperationBase::Ref input);
    /// Seconds without progress after which a waiting call gives up. Default 60.
    [[nodiscard]] float progressTimeoutDuration() const;
    void setProgressTimeoutDuration(float seconds);

    using Pace = OperationWait::Pace;
    /// Default HalfSecond. Set it before the call.
    void setPace(Pace pace);

    /// Sends input once, without changing it. Returns the transport's raw reply, which may be null. Returns null and
    /// stores the error if sending failed. Throws the transport's exception if the server is unreachable.
    [[nodiscard]] Reply invokeOverTransport(const Transport& transport, ErrorOut error);

    /// Sends input, then polls its progress at its pace until it ends, and keeps input up to date.
    ///
    /// Returns the first reply if the work was completed. Returns input if the server reported an error, if the
    /// operation was cancelled, or if it made no progress for longer than progressTimeout seconds. In the last case the
    /// server is asked to cancel, and the record's error is "TransportCheck" 201. Returns null and stores the error if
    /// a send failed. Throws as described above; exceptions of the progress delegate propagate, and the server is not
    /// asked to cancel. A null input is sent, but not waited for: the result is null.
    [[nodiscard]] KRVOperationBase::Ref
    invokeOverTransportGetProgressWaitToComplete(const Transport& transport, ErrorOut error, float progressTimeout);

    /// Asks the server to cancel the operation, ignores the reply, and logs a failure. Marks the operation cancelled in
    /// any case.
    void tryToCancelOperation(const KRVOperationBase::Ref& operation, const Transport& usingTransport);

    /// Stores an error record of domain "TransportInvocation" and code 0 that names input. Returns false if error is
    /// null.
    bool errorBasedOnOperation(ErrorOut error, const Exception* exception) const;

    /// Returns the user-info of a failure: "Unable to NAME", and the reason of the exception if there is one.
    [[nodiscard]] static Dictionary createErrorDictionaryFromException(std::string_view operationName,
                                                                       const Exception* ex);
    /// Returns the reply as a record. Throws "TransportCheck" instead of returning null.
    static KRVOperationBase::Ref throwExceptionBasedOnResponse(const KRVOperationBase::Ref& operation,
                                                               const Reply& response);
    /// Returns null if error already holds an error, else the same as throwExceptionBasedOnResponse.
    static KRVOperationBase::Ref throwExceptionIfNoError(ErrorOut error, const KRVOperationBase::Ref& forOperation,
                                                         const Reply& andResponseEmpty);

private:
    [[nodiscard]] Ref another(KRVOperationBase::Ref operation) const;
    [[nodiscard]] KRVOperationBase::Ref poll(const KRVOperationBase::Ref& request, const Transport& transport,
                                             ErrorOut transportError) const;

    Clock& clock_;
    Guarded<KRVOperationBase::Ref> input_;
    std::atomic<float> progressTimeoutDuration_{60.0F};
    Pace pace_ = Pace::HalfSecond;
};

}  // namespace krv
