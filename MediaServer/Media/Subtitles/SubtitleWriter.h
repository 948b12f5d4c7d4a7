#pragma once

#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Subtitles/SubtitleDecoder.h>

namespace krv::media {

/// Writes a track of text subtitles in the format that the container supports. Not thread-safe.
class SubtitleWriter {
public:
    /// Adds the track to the output, which must outlive this object. from: has the language and the title; decoder: has
    /// the styles. Throws Failure with UnconvertibleSubtitles.
    SubtitleWriter(const AVStream& from, const SubtitleDecoder& decoder, OutputFile& output);

    /// Writes lines. They must follow one another in the order of their starts, which are at least 0. Throws Failure.
    void write(const Subtitle& lines);

private:
    OutputFile& output_;
    AVStream& to_;
    CodecContextPtr encoder_;
    PacketPtr packet_ = newPacket();
    int lines_ = 0;
};

/// Changes the number at the start of a line in ASS format. Players drop a line whose number another one has.
void numberLine(AVPacket& packet, int number);

}  // namespace krv::media
