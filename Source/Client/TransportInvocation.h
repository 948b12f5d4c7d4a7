#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Guarded.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>
#include <KRVQTProcessClient/Platform/Clock.h>
#include <KRVQTProcessClient/Transports/KRVOperationTransport.h>

namespace krv {

/// One operation on its way over a transport.
///
/// What can go wrong comes out in two ways: an exception of the transport that means "server unreachable" is raised
/// again unchanged, so that a caller may wait and retry; everything else becomes an error record in the caller's
/// out-parameter. A reply that is missing or is no operation raises Exception "TransportCheck".
///
/// An invocation serves one call on one thread and blocks it. A null transport (that of a client that has been cleaned
/// up) answers every operation with no reply.
class KRV_EXPORT TransportInvocation {
public:
    using Ref = std::shared_ptr<TransportInvocation>;
    using Transport = std::shared_ptr<KRVTransport>;
    using Reply = std::shared_ptr<const Data>;

    /// clock measures stalls and sleeps between polls; it must outlive the invocation.
    [[nodiscard]] static Ref invocationWith(KRVOperationBase::Ref operation, Clock& clock = Clock::steady());
    explicit TransportInvocation(Clock& clock = Clock::steady());

    [[nodiscard]] KRVOperationBase::Ref input() const;
    void setInput(KRVOperationBase::Ref input);
    /// Seconds for which a waiting call lets progress stand still; 60 at first.
    [[nodiscard]] float progressTimeoutDuration() const;
    void setProgressTimeoutDuration(float seconds);

    /// Sends input once. Returns the transport's reply as it stands, which may be null; null also when a failure went
    /// into error. input is not changed. Raises the transport's own exception when the server is unreachable.
    [[nodiscard]] Reply invokeOverTransport(const Transport& transport, ErrorOut error);

    /// Sends input, then asks for its progress every half second until it ends, keeping input up to date.
    ///
    /// Returns the first reply when the work was completed; input when the server reported an error, when it was
    /// cancelled, and when progress stood still for longer than progressTimeout seconds (its error is "TransportCheck"
    /// 201 then, and the server has been asked to cancel); null when a send failed with a mapped error, which is in
    /// error then. Raises as described above, and whatever the progress delegate raises.
    [[nodiscard]] KRVOperationBase::Ref
    invokeOverTransportGetProgressWaitToComplete(const Transport& transport, ErrorOut error, float progressTimeout);

    /// Asks the server to cancel the operation, ignores the answer, logs a failure, and marks it cancelled in every
    /// case.
    void tryToCancelOperation(const KRVOperationBase::Ref& operation, const Transport& usingTransport);

    /// Writes an error record of domain "TransportInvocation" and code 0 that names input; false when error is absent.
    bool errorBasedOnOperation(ErrorOut error, const Exception* exception) const;

    /// User-info for a failure: "Unable to NAME", and the exception's reason when there is one.
    [[nodiscard]] static Dictionary createErrorDictionaryFromException(std::string_view operationName,
                                                                       const Exception* ex);
    /// The reply as a record; raises "TransportCheck" instead of returning null.
    static KRVOperationBase::Ref throwExceptionBasedOnResponse(const KRVOperationBase::Ref& operation,
                                                               const Reply& response);
    /// Null when error is given and already holds an error; otherwise the same as above.
    static KRVOperationBase::Ref throwExceptionIfNoError(ErrorOut error, const KRVOperationBase::Ref& forOperation,
                                                         const Reply& andResponseEmpty);

private:
    [[nodiscard]] Ref another(KRVOperationBase::Ref operation) const;
    [[nodiscard]] KRVOperationBase::Ref poll(const KRVOperationBase::Ref& request, const Transport& transport,
                                             ErrorOut transportError) const;

    Clock& clock_;
    Guarded<KRVOperationBase::Ref> input_;
    std::atomic<float> progressTimeoutDuration_{60.0F};
};

}  // namespace krv
