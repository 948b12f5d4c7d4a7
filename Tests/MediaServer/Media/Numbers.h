#pragma once

#include <string>
#include <vector>

namespace krv::media::test {

/// The path of a movie that scripts/make-corpus has made.
std::string corpus(const std::string& name);

/// The numbers that the pictures of a movie bear, in the order in which they are shown, as ffmpeg sees them. filter:
/// what ffmpeg does to a picture first, such as "transpose=cclock".
std::vector<int> frameNumbers(const std::string& path, const std::string& filter = "null");

/// The numbers from first to last, by step.
std::vector<int> numbersFrom(int first, int last, int step = 1);

/// The mean red, green and blue values of the pictures' cells in a grid of 16 x 12, as ffmpeg shows the picture of this
/// number, the first being 0.
std::vector<int> shownColours(const std::string& path, int frame = 0);

/// How far two such pictures are apart for the eye: the mean and the largest colour difference ΔE (CIE 1976) of their
/// cells. Up to 2 is hard to see, 10 is seen at a glance.
struct ColourDifference {
    double mean = 0;
    double largest = 0;
};
ColourDifference colourDifference(const std::vector<int>& a, const std::vector<int>& b);

}  // namespace krv::media::test
