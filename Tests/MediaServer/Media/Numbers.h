#pragma once

#include <string>
#include <vector>

namespace krv::media::test {

/// Returns the path of a movie that scripts/make-corpus has made.
std::string corpus(const std::string& name);

/// Returns the numbers that are drawn into the frames of a movie, in the order of presentation, as decoded by ffmpeg.
/// filter: an ffmpeg filter that is applied first, such as "transpose=cclock".
std::vector<int> frameNumbers(const std::string& path, const std::string& filter = "null");

/// Returns the numbers from first to last, by step.
std::vector<int> numbersFrom(int first, int last, int step = 1);

/// Thumbnails of a movie, as the operation makes them.
struct NumberedThumbnail {
    int number;   ///< that is drawn into the frame
    double time;  ///< in seconds
};
std::vector<NumberedThumbnail> numberedThumbnails(const std::string& movie, int count);

/// Expects a description with this duration in seconds, and a poster with this number.
void expectDescription(const std::string& movie, double duration, double tolerance, int posterNumber);

/// Returns the mean red, green and blue values of the cells of a frame in a grid of 16 x 12, as ffmpeg shows it. frame:
/// its index, from 0.
std::vector<int> shownColours(const std::string& path, int frame = 0);

/// The visible difference of two such frames: the mean and the largest colour difference ΔE (CIE 1976) of their cells.
/// A difference of 2 is hard to see, one of 10 is obvious.
struct ColourDifference {
    double mean = 0;
    double largest = 0;
};
ColourDifference colourDifference(const std::vector<int>& a, const std::vector<int>& b);

}  // namespace krv::media::test
