#include "MergeTestKit.h"

#include <fcntl.h>

namespace krv::media::test {

namespace {

OutputPath join(MergeRequest request, const std::vector<std::string>& sources, const std::string& extension,
                ProgressSink& sink) {
    OutputPath output(extension);
    std::vector<Descriptor> files;
    for (const std::string& source : sources) {
        const std::string path = source.starts_with('/') ? source : testMedia(source);
        files.push_back(openToRead(path));
        request.sources.push_back({files.back().number(), path});
    }
    const Descriptor to(open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    request.destination = to.number();
    request.destinationPath = output.path();
    merge(request, sink);
    return output;
}

}  // namespace

OutputPath join(const std::vector<std::string>& sources, const std::string& extension, bool useShortest,
                ProgressSink& sink) {
    MergeRequest request;
    request.useShortest = useShortest;
    return join(std::move(request), sources, extension, sink);
}

OutputPath joinAs(const MergeRequest& wishes, const std::vector<std::string>& sources, const std::string& extension) {
    RecordingSink sink;
    return join(wishes, sources, extension, sink);
}

OutputPath join(const std::vector<std::string>& sources, const std::string& extension, bool useShortest) {
    RecordingSink sink;
    return join(sources, extension, useShortest, sink);
}

std::vector<std::string> repeated(const std::vector<std::string>& hashes, std::size_t times) {
    std::vector<std::string> all;
    for (std::size_t i = 0; i < times; ++i) {
        all.insert(all.end(), hashes.begin(), hashes.end());
    }
    return all;
}

}  // namespace krv::media::test
