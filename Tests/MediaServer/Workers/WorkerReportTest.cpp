// Reports of honest workers and of those that a hostile file has taken over.
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <MediaServer/Protocol/FailureSentence.h>
#include <MediaServer/Protocol/MediaRequest.h>
#include <MediaServer/Workers/WorkerReport.h>

namespace krv::server {
namespace {

using R = KRVOperationBase;

constexpr std::size_t kSmall = 1000;

R::Ref completed() {
    const auto report = std::make_shared<R>();
    report->setOperationType(OpReturnResult);
    report->setProgress(1.0F, true);
    return report;
}

R::Ref withResult(Dictionary result) {
    const auto report = completed();
    report->setResult(std::make_shared<Dictionary>(std::move(result)));
    return report;
}

/// The report of an operation that has written a movie and dropped nothing.
R::Ref written(Dictionary result = {}) {
    result.set(kResultDroppedTracks, Array());
    return withResult(std::move(result));
}

R::Ref withError(std::shared_ptr<const Error> error) {
    const auto report = completed();
    report->setError(std::move(error));
    return report;
}

/// Expects an internal error with this technical cause.
void expectLie(const R::Ref& request, const R::Ref& report, const std::string& reason, std::size_t size = kSmall) {
    const Outcome outcome = outcomeOf(*request, *report, size);
    ASSERT_EQ(outcome.kind, Outcome::Kind::Failed) << reason;
    EXPECT_EQ(outcome.error->code(), 8) << reason;
    EXPECT_EQ(outcome.error->localizedFailureReason(), "the worker sent " + reason);
    EXPECT_EQ(outcome.record, nullptr);
}

// Errors.

const R::Ref kEncode = R::encodeVideoOperation("/a.mov", "/b.mp4");
const R::Ref kMerge = R::mergeSourcesOperation(Value(Array{"/a.mov", "/b.mov"}), "/c.mov", false);

std::shared_ptr<const Error> error(std::int64_t code, Dictionary more = {}) {
    Dictionary userInfo{{NSLocalizedDescriptionKey, "sentence"}, {NSLocalizedFailureReasonErrorKey, "cause"}};
    for (const auto& [key, value] : more) {
        userInfo.set(*key, value);
    }
    return Error::make(std::string(kMediaServerErrorDomain), code, std::move(userInfo));
}

TEST(WorkerReport, PassesTheErrorsThatAWorkerFinds) {
    for (std::int64_t code = 3; code <= 9; ++code) {
        const Outcome outcome = outcomeOf(*kEncode, *withError(error(code)), kSmall);
        EXPECT_EQ(outcome.kind, Outcome::Kind::Failed);
        EXPECT_EQ(*outcome.error, *error(code));
    }
    const auto real = makeError(*kEncode, {.cause = FailureCause::UnwritableDestination, .errorNumber = 28});
    ASSERT_EQ((*real->userInfo())[kErrorNumber], Value(28));
    EXPECT_EQ(*outcomeOf(*kEncode, *withError(real), kSmall).error, *real);
}

TEST(WorkerReport, RefusesErrorsThatOnlyTheServerFinds) {
    for (const std::int64_t code : {0, 1, 2, 10, 11, -1}) {
        expectLie(kEncode, withError(error(code)), "the error code " + std::to_string(code));
    }
}

TEST(WorkerReport, RefusesErrorsThatAreNotOurs) {
    expectLie(kEncode, withError(Error::make("NSURLErrorDomain", 3, {})), "an error of another domain");
    expectLie(kEncode, withError(std::make_shared<Error>(std::string(kMediaServerErrorDomain), 3)),
              "an error without a valid NSLocalizedDescription");
    expectLie(kEncode, withError(error(3, {{NSLocalizedFailureReasonErrorKey, 7}})),
              "an error without a valid NSLocalizedFailureReason");
    expectLie(kEncode, withError(error(3, {{NSLocalizedDescriptionKey, std::string(100'000, 'x')}})),
              "an error without a valid NSLocalizedDescription");
    expectLie(kEncode, withError(error(3, {{kErrorFilePath, "/etc/passwd"}})),
              "an error about a file of its own choice");
}

TEST(WorkerReport, RefusesErrorNumbersThatTheSystemDoesNotHave) {
    for (const Value& wrong : {Value(0), Value(-28), Value(4096), Value(std::numeric_limits<std::int64_t>::max()),
                               Value(28.0), Value("28"), Value(true), Value()}) {
        expectLie(kEncode, withError(error(5, {{kErrorNumber, wrong}})), "an invalid error number");
    }
    for (const std::int64_t number : {1, 28, 4095}) {
        const auto claimed = error(5, {{kErrorNumber, number}});
        EXPECT_EQ(*outcomeOf(*kEncode, *withError(claimed), kSmall).error, *claimed);
    }
}

TEST(WorkerReport, RefusesErrorNumbersOfErrorsThatNoSystemCallCauses) {
    for (const std::int64_t code : {4, 6, 7, 8, 9}) {
        expectLie(kEncode, withError(error(code, {{kErrorNumber, 28}})), "an invalid error number");
    }
}

TEST(WorkerReport, DropsWhatElseAnErrorHas) {
    const Outcome outcome =
        outcomeOf(*kEncode, *withError(error(3, {{"more", Data(100)}, {kErrorFilePath, "/b.mp4"}})), kSmall);
    EXPECT_EQ(*outcome.error, *error(3, {{kErrorFilePath, "/b.mp4"}}));
}

// Records.

TEST(WorkerReport, DropsArgumentsThatAWorkerAdds) {
    const auto report = written();
    report->arguments()->set(kArgumentEncodingSourceFilename, "/etc/passwd");
    report->setUniqueID("another operation");
    const Outcome outcome = outcomeOf(*kEncode, *report, kSmall);
    ASSERT_EQ(outcome.kind, Outcome::Kind::Completed);
    EXPECT_EQ(outcome.record->arguments()->find(kArgumentEncodingSourceFilename), nullptr);
    EXPECT_FALSE(outcome.record->uniqueID());
}

TEST(WorkerReport, KeepsWhatItKnowsOfTheResult) {
    const Outcome outcome =
        outcomeOf(*kEncode, *written({{"key", Data(100)}, {kResultSourceTruncatedAt, 1.5}}), kSmall);
    ASSERT_EQ(outcome.kind, Outcome::Kind::Completed);
    EXPECT_EQ(*outcome.record->result(),
              (Dictionary{{kResultDroppedTracks, Array()}, {kResultSourceTruncatedAt, 1.5}}));
}

TEST(WorkerReport, RefusesInvalidEndsOfTruncatedSources) {
    for (const Value& wrong : {Value("1.5"), Value(1), Value(std::numeric_limits<double>::infinity()), Value()}) {
        expectLie(kEncode, written({{kResultSourceTruncatedAt, wrong}}), "an invalid end of a truncated source");
    }
    const Outcome outcome = outcomeOf(*kMerge, *written({{kResultSourcesTruncatedAt, Array{Value(), 2.5}}}), kSmall);
    ASSERT_EQ(outcome.kind, Outcome::Kind::Completed);
    EXPECT_EQ((*outcome.record->result())[kResultSourcesTruncatedAt], Value(Array{Value(), 2.5}));
    for (const Value& wrong : {Value(2.5), Value(Array{2.5}), Value(Array{2.5, "x"}), Value(Array(3, Value()))}) {
        expectLie(kMerge, written({{kResultSourcesTruncatedAt, wrong}}), "invalid ends of truncated sources");
    }
}

const Dictionary kDropped{{kResultDroppedTrackIndex, 3},
                          {kResultDroppedTrackKind, "subtitle"},
                          {kResultDroppedTrackCodec, "dvd_subtitle"},
                          {kResultDroppedTrackLanguage, "deu"},
                          {kResultDroppedTrackReason, "mp4 files cannot hold bitmap subtitles"}};

R::Ref withDropped(Array tracks) {
    return withResult({{kResultDroppedTracks, std::move(tracks)}});
}

Value changed(const Dictionary& track, std::string_view key, Value value) {
    Dictionary copy = track.mutableCopy();
    copy.set(key, std::move(value));
    return Value(std::make_shared<Dictionary>(std::move(copy)));
}

TEST(WorkerReport, KeepsTheKnownEntriesOfDroppedTracks) {
    const auto report = withDropped({changed(kDropped, "more", Data(100))});
    const Outcome outcome = outcomeOf(*kEncode, *report, kSmall);
    ASSERT_EQ(outcome.kind, Outcome::Kind::Completed);
    const auto tracks = (*outcome.record->result())[kResultDroppedTracks].array();
    ASSERT_EQ(tracks->size(), 1U);
    EXPECT_EQ(*tracks->front().dictionary(), kDropped);
}

TEST(WorkerReport, RefusesOtherListsOfDroppedTracks) {
    for (const R::Ref& request : {kEncode, kMerge, R::muxAudioTo2chOperation("/a.mov", "/b.mp4")}) {
        expectLie(request, completed(), "no list of dropped tracks, or one that is too long");
    }
    expectLie(kEncode, withDropped(Array(10'001, changed(kDropped, "index", 1))),
              "no list of dropped tracks, or one that is too long");
    expectLie(kEncode, withDropped({Value(5)}), "a dropped track without a valid index");
    for (const Value& wrong : {Value(), Value(-2), Value("3"), Value(3.0)}) {
        expectLie(kEncode, withDropped({changed(kDropped, kResultDroppedTrackIndex, wrong)}),
                  "a dropped track without a valid index");
    }
    for (const std::string_view key :
         {kResultDroppedTrackKind, kResultDroppedTrackCodec, kResultDroppedTrackLanguage, kResultDroppedTrackReason}) {
        for (const Value& wrong : {Value(), Value(7), Value(std::string(1025, 'x'))}) {
            expectLie(kEncode, withDropped({changed(kDropped, key, wrong)}),
                      "a dropped track without a valid " + std::string(key));
        }
    }
    for (const Value& wrong : {Value(), Value(-1), Value(2), Value("0")}) {
        expectLie(kMerge, withDropped({changed(kDropped, kResultDroppedTrackSource, wrong)}),
                  "a dropped track of no source");
    }
    EXPECT_EQ(outcomeOf(*kMerge, *withDropped({changed(kDropped, kResultDroppedTrackSource, 1)}), kSmall).kind,
              Outcome::Kind::Completed);
}

TEST(WorkerReport, BoundsTheWholeReport) {
    constexpr std::size_t kLimit = std::size_t{16} << 20;
    EXPECT_EQ(outcomeOf(*kEncode, *written(), kLimit).kind, Outcome::Kind::Completed);
    expectLie(kEncode, completed(), "a report of 16777217 bytes", kLimit + 1);
    expectLie(kEncode, withError(error(3)), "a report of 16777217 bytes", kLimit + 1);
}

// Thumbnails.

Value picture(Value time = 0.5, Value offset = 0, Value length = 100) {
    return std::make_shared<Dictionary>(
        Dictionary{{kResultThumbnailTime, time}, {kThumbnailOffset, offset}, {kThumbnailLength, length}});
}

/// Returns pictures one after another.
Array pictures(std::int64_t count) {
    Array all;
    for (std::int64_t i = 0; i < count; ++i) {
        all.push_back(picture(0.5, i * 100));
    }
    return all;
}

R::Ref thumbnailRequest(int count) {
    const auto request = R::createThumbnailsForVideo("/a.mov", "/folder", {});
    request->arguments()->set(kArgumentThumbnailCount, count);
    return request;
}

TEST(WorkerReport, RefusesThumbnailsThatTakeMoreRoomThanWasWritten) {
    constexpr std::int64_t kMost = kLargestPoster;
    constexpr auto kLast = std::numeric_limits<std::int64_t>::max();
    const auto lie = [](Array list) {
        expectLie(thumbnailRequest(2), withResult({{kResultThumbnails, std::move(list)}}),
                  "thumbnails that overlap, or are empty or too large");
    };
    lie({picture(0.5, 0, 100), picture(1.5, 99, 100)});
    lie({picture(0.5, 50, 100), picture(1.5, 0, 51)});
    lie({picture(0.5, 0, kMost + 1)});
    lie({picture(0.5, 0, 0)});
    lie({picture(0.5, 0, -1)});
    lie({picture(0.5, -1, 100)});
    expectLie(thumbnailRequest(2), withResult({{kResultThumbnails, Array{picture(0.5, kLast, 100)}}}),
              "a thumbnail beyond the end of any file");
    const Array apart{picture(0.5, 100, kMost), picture(1.5, 0, 100)};
    EXPECT_EQ(outcomeOf(*thumbnailRequest(2), *withResult({{kResultThumbnails, apart}}), kSmall).kind,
              Outcome::Kind::Completed);
}

TEST(WorkerReport, AcceptsAsManyThumbnailsAsWereAskedFor) {
    for (const int count : {1, 2}) {
        const auto report = withResult({{kResultThumbnails, pictures(count)}});
        EXPECT_EQ(outcomeOf(*thumbnailRequest(2), *report, kSmall).kind, Outcome::Kind::Completed);
    }
    const auto report = withResult({{kResultThumbnails, pictures(12)}});
    EXPECT_EQ(outcomeOf(*R::createThumbnailsForVideo("/a", "/b", {}), *report, kSmall).kind, Outcome::Kind::Completed);
}

TEST(WorkerReport, RefusesOtherListsOfThumbnails) {
    const auto request = thumbnailRequest(2);
    expectLie(request, completed(), "no list of thumbnails");
    expectLie(request, withResult({{kResultThumbnails, 7}}), "no list of thumbnails");
    expectLie(request, withResult({{kResultThumbnails, Array{}}}), "0 thumbnails instead of 2");
    expectLie(request, withResult({{kResultThumbnails, Array(3000, picture())}}), "3000 thumbnails instead of 2");
    for (const Value& wrong : {Value(7), picture("0"), picture(std::numeric_limits<double>::quiet_NaN()),
                               picture(0.5, 0.5), picture(0.5, 0, Value())}) {
        expectLie(request, withResult({{kResultThumbnails, Array{wrong}}}),
                  "a thumbnail without time, offset or length");
    }
}

// Descriptions.

const R::Ref kDescribe = R::provideMetadataFor("/a.mov");

const Dictionary kTrack{{kResultMovieTrackIndex, 0},
                        {kResultMovieTrackKind, "video"},
                        {kResultMovieTrackCodec, "H.264"},
                        {kResultMovieTrackLanguage, ""},
                        {kResultMovieTrackTitle, "The film"},
                        {kResultMovieTrackDefault, true},
                        {kResultMovieTrackDimensions, Size{640, 360}},
                        {kResultMovieTrackFrameRate, 25.0},
                        {kResultMovieTrackChannels, 2},
                        {kResultMovieTrackSampleRate, 48000}};
const Dictionary kTags{{"title", "A title"}, {"artist", ""}};
const Dictionary kChapter{
    {kResultMovieChapterStart, 0.0}, {kResultMovieChapterEnd, 2.5}, {kResultMovieChapterTitle, "One"}};

Value valueOf(const Dictionary& dictionary) {
    return Value(std::make_shared<Dictionary>(dictionary));
}

/// The contents of a movie with one track, two tags and one chapter.
Dictionary contents() {
    return {{kResultMovieTracks, Array{valueOf(kTrack)}},
            {kResultMovieTags, valueOf(kTags)},
            {kResultMovieChapters, Array{valueOf(kChapter)}}};
}

R::Ref withDescription(Dictionary description) {
    const auto report = withResult(contents());
    report->setMetadata(std::make_shared<const Dictionary>(std::move(description)));
    return report;
}

TEST(WorkerReport, KeepsTheKnownEntriesOfADescription) {
    Dictionary description{{kMediaMetadataCodec, "H.264"},
                           {kMediaMetadataDuration, 2.5},
                           {kMediaMetadataDimensions, Size{640, 360}},
                           {kMediaMetadataSize, 12345},
                           {kMediaMetadataPath, "/a.mov"},
                           {kMediaMetadataCreation, Date{7}},
                           {kMediaMetadataPoster, Data(kLargestPoster)}};
    const Dictionary expected = description;
    description.set("secret", Data(1000));
    const Outcome outcome = outcomeOf(*kDescribe, *withDescription(std::move(description)), kSmall);
    ASSERT_EQ(outcome.kind, Outcome::Kind::Completed);
    EXPECT_EQ(*outcome.record->metadata(), expected);
}

TEST(WorkerReport, KnowsThePathOfADescriptionItself) {
    const Outcome outcome = outcomeOf(*kDescribe, *withDescription({{kMediaMetadataPath, "/etc/passwd"}}), kSmall);
    ASSERT_EQ(outcome.kind, Outcome::Kind::Completed);
    EXPECT_EQ((*outcome.record->metadata())[kMediaMetadataPath], Value("/a.mov"));
}

TEST(WorkerReport, RefusesOtherDescriptions) {
    expectLie(kDescribe, completed(), "no description");
    expectLie(kDescribe, withDescription({{kMediaMetadataDuration, "long"}}),
              "a value of the wrong kind under metadataDuration");
    expectLie(kDescribe, withDescription({{kMediaMetadataDuration, std::numeric_limits<double>::infinity()}}),
              "a number that is not finite under metadataDuration");
    expectLie(kDescribe, withDescription({{kMediaMetadataCodec, std::string(5000, 'x')}}),
              "a text of 5000 bytes under metadataCodec");
    expectLie(kDescribe, withDescription({{kMediaMetadataPoster, Data(kLargestPoster + 1)}}),
              "a poster of 8388609 bytes");
}

R::Ref withContents(std::string_view key, Value value) {
    const auto report = withDescription({});
    Dictionary changed = contents();
    changed.set(key, std::move(value));
    report->setResult(std::make_shared<Dictionary>(std::move(changed)));
    return report;
}

TEST(WorkerReport, KeepsTheKnownContentsOfAMovie) {
    const auto report = withContents(kResultMovieTracks, Array{changed(kTrack, "secret", Data(1000))});
    report->result()->set(kResultMovieChapters, Array{changed(kChapter, "secret", Data(1000))});
    report->result()->set("secret", Data(1000));
    const Outcome outcome = outcomeOf(*kDescribe, *report, kSmall);
    ASSERT_EQ(outcome.kind, Outcome::Kind::Completed);
    EXPECT_EQ(*outcome.record->result(), contents());
}

TEST(WorkerReport, AcceptsSparseContents) {
    const Dictionary sparse{{kResultMovieTrackIndex, 0},
                            {kResultMovieTrackKind, "data"},
                            {kResultMovieTrackCodec, ""},
                            {kResultMovieTrackLanguage, ""},
                            {kResultMovieTrackDefault, false}};
    for (const R::Ref& report :
         {withContents(kResultMovieTracks, Array{}), withContents(kResultMovieTracks, Array{valueOf(sparse)}),
          withContents(kResultMovieTags, valueOf({})), withContents(kResultMovieChapters, Array{})}) {
        const Outcome outcome = outcomeOf(*kDescribe, *report, kSmall);
        ASSERT_EQ(outcome.kind, Outcome::Kind::Completed);
        EXPECT_EQ(*outcome.record->result(), *report->result());
    }
}

/// Returns a text of this length that has a number in it and is archived with two bytes for each of its characters.
std::string longText(std::size_t number, std::size_t length) {
    std::string text = "\u00FC" + std::to_string(number);
    text.resize(length, 'x');
    return text;
}

TEST(WorkerReport, AcceptsTheLargestContents) {
    Array tracks;
    for (std::size_t i = 0; i < kMostMovieTracks; ++i) {
        Dictionary track = kTrack.mutableCopy();
        track.set(kResultMovieTrackIndex, static_cast<std::int64_t>(i));
        track.set(kResultMovieTrackFrameRate, static_cast<double>(i) + 1);
        track.set(kResultMovieTrackDimensions, Size{1, static_cast<double>(i) + 1});
        track.set(kResultMovieTrackTitle, longText(i, kLongestMovieTitle));
        tracks.push_back(valueOf(track));
    }
    Dictionary tags;
    for (std::size_t i = 0; i < kMostMovieTags; ++i) {
        tags.set(longText(i, kLongestMovieTagKey), longText(i, kLongestMovieTag));
    }
    Array chapters;
    for (std::size_t i = 0; i < kMostMovieChapters; ++i) {
        chapters.push_back(valueOf({{kResultMovieChapterStart, static_cast<double>(i)},
                                    {kResultMovieChapterEnd, static_cast<double>(i)},
                                    {kResultMovieChapterTitle, longText(i, kLongestMovieTitle)}}));
    }
    const auto report = withDescription({{kMediaMetadataPoster, Data(kLargestPoster)}});
    report->setResult(std::make_shared<Dictionary>(Dictionary{{kResultMovieTracks, std::move(tracks)},
                                                              {kResultMovieTags, valueOf(tags)},
                                                              {kResultMovieChapters, std::move(chapters)}}));
    const Outcome outcome = outcomeOf(*kDescribe, *report, report->convertToData().size());
    ASSERT_EQ(outcome.kind, Outcome::Kind::Completed) << outcome.error->description();
    EXPECT_EQ(*outcome.record->result(), *report->result());
}

TEST(WorkerReport, RefusesOtherTracks) {
    for (const Value& wrong : {Value(), Value("tracks"), Value(Array(1001, valueOf(kTrack)))}) {
        expectLie(kDescribe, withContents(kResultMovieTracks, wrong), "no list of tracks, or one that is too long");
    }
    for (const Array& wrong :
         {Array{7}, Array{valueOf({})}, Array{valueOf(kTrack), valueOf(kTrack)},
          Array{changed(kTrack, kResultMovieTrackIndex, 1)}, Array{changed(kTrack, kResultMovieTrackIndex, 0.0)}}) {
        expectLie(kDescribe, withContents(kResultMovieTracks, wrong), "a track that is not in its place");
    }
    const std::string tooLong(kLongestMovieTitle + 1, 'x');
    constexpr double kNever = std::numeric_limits<double>::infinity();
    const std::vector<std::pair<std::string_view, std::vector<Value>>> wrong{
        {kResultMovieTrackKind, {Value(), Value(1), Value("chapters"), Value("")}},
        {kResultMovieTrackCodec, {Value(), Value(1), Value(tooLong)}},
        {kResultMovieTrackLanguage, {Value(), Value(1), Value(tooLong)}},
        {kResultMovieTrackTitle, {Value(), Value(1), Value(tooLong)}},
        {kResultMovieTrackDefault, {Value(), Value(1), Value("true")}},
        {kResultMovieTrackDimensions, {Value(), Value(1), Value(Size{0, 360}), Value(Size{640, kNever})}},
        {kResultMovieTrackFrameRate, {Value(), Value(25), Value(0.0), Value(-1.0), Value(kNever)}},
        {kResultMovieTrackChannels, {Value(), Value(2.0), Value(0), Value(-1)}},
        {kResultMovieTrackSampleRate, {Value(), Value(48000.0), Value(0), Value(-1)}}};
    for (const auto& [key, values] : wrong) {
        for (const Value& value : values) {
            expectLie(kDescribe, withContents(kResultMovieTracks, Array{changed(kTrack, key, value)}),
                      "a track without a valid " + std::string(key));
        }
    }
}

TEST(WorkerReport, RefusesATrackWithoutWhatEveryTrackHas) {
    for (const std::string_view key :
         {kResultMovieTrackKind, kResultMovieTrackCodec, kResultMovieTrackLanguage, kResultMovieTrackDefault}) {
        Dictionary track = kTrack.mutableCopy();
        track.remove(key);
        expectLie(kDescribe, withContents(kResultMovieTracks, Array{valueOf(track)}),
                  "a track without a valid " + std::string(key));
    }
}

TEST(WorkerReport, RefusesOtherTags) {
    Dictionary many;
    for (std::size_t i = 0; i <= kMostMovieTags; ++i) {
        many.set(std::to_string(i), "x");
    }
    for (const Value& wrong : {Value(), Value(Array{}), valueOf(many)}) {
        expectLie(kDescribe, withContents(kResultMovieTags, wrong), "no tags, or too many");
    }
    for (const Dictionary& wrong :
         {Dictionary{{"", "x"}}, Dictionary{{std::string(kLongestMovieTagKey + 1, 'x'), "x"}}, Dictionary{{"title", 7}},
          Dictionary{{"title", Value()}}, Dictionary{{"title", std::string(kLongestMovieTag + 1, 'x')}}}) {
        expectLie(kDescribe, withContents(kResultMovieTags, valueOf(wrong)), "an invalid tag");
    }
}

TEST(WorkerReport, RefusesOtherChapters) {
    for (const Value& wrong : {Value(), Value(7), Value(Array(2001, valueOf(kChapter)))}) {
        expectLie(kDescribe, withContents(kResultMovieChapters, wrong), "no list of chapters, or one that is too long");
    }
    constexpr double kNever = std::numeric_limits<double>::infinity();
    for (const Array& wrong :
         {Array{7}, Array{valueOf({})}, Array{valueOf(kChapter), valueOf(kChapter)},
          Array{changed(kChapter, kResultMovieChapterStart, -1.0)},
          Array{changed(kChapter, kResultMovieChapterStart, 0)},
          Array{changed(kChapter, kResultMovieChapterStart, 3.0)},
          Array{changed(kChapter, kResultMovieChapterEnd, kNever)},
          Array{changed(kChapter, kResultMovieChapterEnd, Value())},
          Array{changed(kChapter, kResultMovieChapterTitle, Value())},
          Array{changed(kChapter, kResultMovieChapterTitle, std::string(kLongestMovieTitle + 1, 'x'))}}) {
        expectLie(kDescribe, withContents(kResultMovieChapters, wrong),
                  "a chapter without a valid start, end or title, or in the wrong order");
    }
}

TEST(WorkerReport, RefusesADescriptionWithoutContents) {
    const auto report = withDescription({});
    report->setResult(nullptr);
    expectLie(kDescribe, report, "no list of tracks, or one that is too long");
}

// Interesting times.

const R::Ref kTimes = R::getInterestingTimesOperation("/a.mov", false, 0);

R::Ref withTimes(Value values, Value scale = 600) {
    return withResult({{kResultInterestingTimes, std::make_shared<Dictionary>(Dictionary{
                                                     {kResultInterestingTimeValues, std::move(values)},
                                                     {kResultInterestingTimeTimescale, std::move(scale)}})}});
}

TEST(WorkerReport, AcceptsAscendingTimes) {
    for (const Array& values : {Array{}, Array{0}, Array{0, 1, 600}, Array{-5, 0}}) {
        EXPECT_EQ(outcomeOf(*kTimes, *withTimes(values), kSmall).kind, Outcome::Kind::Completed);
    }
}

TEST(WorkerReport, RefusesOtherTimes) {
    expectLie(kTimes, completed(), "no interesting times, or no time scale");
    expectLie(kTimes, withTimes(7), "no interesting times, or no time scale");
    expectLie(kTimes, withTimes(Array{0}, 0), "no interesting times, or no time scale");
    expectLie(kTimes, withTimes(Array{0}, 600.0), "no interesting times, or no time scale");
    for (const Array& values : {Array{0, 0}, Array{1, 0}, Array{0, 1.5}, Array{Value()}, Array{0, "1"}}) {
        expectLie(kTimes, withTimes(values), "interesting times that are not ascending integers");
    }
}

}  // namespace
}  // namespace krv::server
