#include "MergeTestKit.h"

#include <fcntl.h>

namespace krv::media::test {

OutputPath join(const std::vector<std::string>& sources, const std::string& extension, bool useShortest,
                ProgressSink& sink) {
    OutputPath output(extension);
    std::vector<Descriptor> files;
    MergeRequest request;
    for (const std::string& source : sources) {
        const std::string path = source.starts_with('/') ? source : testMedia(source);
        files.push_back(openToRead(path));
        request.sources.push_back({files.back().number(), path});
    }
    const Descriptor to(open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    request.destination = to.number();
    request.destinationPath = output.path();
    request.useShortest = useShortest;
    merge(request, sink);
    return output;
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
