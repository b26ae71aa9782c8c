// Frame intake of the run driver: video recognition, folder listing and
// sorting, the loaded range, unreadable files and video decoding with the
// saved frame files.
#include <sys/stat.h>

#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "LoadAnalyzer.h"
#include "capture.h"
#include "fixtures.h"

namespace {

using namespace vyra_test;

// ------------------------------------------------------------ file types

TEST(CheckVideoFile, AcceptsTheFiveExtensionsExactly) {
    // A path without a dot is compared whole, so "mp4" itself counts too.
    for (const char* path : {"a.mp4", "a.mkv", "a.mov", "a.rm", "a.ram", "/data/run.mp4",
                             "dir.d/clip.mov", "mp4", "ram"}) {
        EXPECT_TRUE(checkVideoFile(path)) << path;
    }
    for (const char* path : {"a.MP4", "a.avi", "a.mp4.bak", "a", "", "a.mp4/frames",
                             "a.", "a.rmvb", "a.mkv ", "a.png"}) {
        EXPECT_FALSE(checkVideoFile(path)) << path;
    }
}

TEST(CompareFileType, ComparesTheTextAfterTheLastDot) {
    EXPECT_TRUE(compareFileType("a.tar.png", "png"));
    EXPECT_FALSE(compareFileType("a.tar.png", "tar.png"));
    EXPECT_FALSE(compareFileType("a.tar.png", "PNG"));
    // A trailing dot leaves an empty text.
    EXPECT_TRUE(compareFileType("a.", ""));
    EXPECT_FALSE(compareFileType("a.", "png"));
    // Without a dot the whole name is compared.
    EXPECT_TRUE(compareFileType("png", "png"));
    EXPECT_FALSE(compareFileType("apng", "png"));
    EXPECT_TRUE(compareFileType("", ""));
    EXPECT_FALSE(compareFileType("a.png", ""));
    EXPECT_FALSE(compareFileType("a.png", "png "));
}

TEST(Cmp, IsTrueWhenTheFirstSortsAfterTheSecondByteByByte) {
    EXPECT_TRUE(cmp("b", "a"));
    EXPECT_FALSE(cmp("a", "b"));
    EXPECT_FALSE(cmp("a", "a"));
    EXPECT_TRUE(cmp("ab", "a"));
    EXPECT_FALSE(cmp("a", "ab"));
    EXPECT_TRUE(cmp("9.png", "10.png"));
    // Bytes compare as unsigned: a UTF-8 lead byte sorts after ASCII.
    EXPECT_TRUE(cmp("\xe4\xb8\xad", "z"));
}

// --------------------------------------------------------- folder listing

// A folder of small PNG frames named @p names, frame k of the solid colour
// (positionColour(k), 0, 0), so a decoded frame tells its position.
int positionColour(int position) { return 10 + 20 * position; }

void writePositionFolder(const fs::path& dir, const std::vector<std::string>& names) {
    std::vector<cv::Mat> frames;
    for (size_t k = 0; k < names.size(); ++k) {
        frames.push_back(solidFrame(16, 12, cv::Scalar(positionColour(static_cast<int>(k)), 0, 0)));
    }
    writePngFolder(dir, names, frames);
}

std::vector<int> positionsOf(const std::vector<cv::Mat>& mats, size_t from = 0) {
    std::vector<int> positions;
    for (size_t k = from; k < mats.size(); ++k) {
        positions.push_back(mats[k].empty() ? -1 : (mats[k].at<cv::Vec3b>(0, 0)[0] - 10) / 20);
    }
    return positions;
}

std::vector<std::string> numberedNames(int count) {
    std::vector<std::string> names;
    for (int k = 0; k < count; ++k) {
        names.push_back(std::to_string(k) + ".png");
    }
    return names;
}

TEST(GetFiles, ListsVisiblePngNamesAndPrintsTheirCount) {
    TempDir dir;
    writePngFolder(dir.path(), {"1.png", "2.png", "10.png", ".hidden.png", "x.PNG"},
                   std::vector<cv::Mat>(5, solidFrame(4, 4)));
    std::ofstream(dir / "notes.txt") << "not a frame";

    std::vector<std::string> files;
    const std::string out = stdoutOf([&] { getFiles(dir.str(), files); });

    EXPECT_EQ(out, "files size:: 3\n");
    EXPECT_EQ(std::multiset<std::string>(files.begin(), files.end()),
              (std::multiset<std::string>{"1.png", "10.png", "2.png"}));
}

TEST(GetFiles, AppendsToTheListAndCountsEverythingInIt) {
    TempDir dir;
    writePngFolder(dir.path(), {"a.png"}, {solidFrame(4, 4)});
    std::vector<std::string> files{"earlier.png", "other"};
    const std::string out = stdoutOf([&] { getFiles(dir.str(), files); });
    EXPECT_EQ(out, "files size:: 3\n");
    EXPECT_EQ(files, (std::vector<std::string>{"earlier.png", "other", "a.png"}));
}

TEST(GetFiles, MissingFolderAppendsNothing) {
    TempDir dir;
    std::vector<std::string> files;
    EXPECT_EQ(stdoutOf([&] { getFiles((dir / "missing").string(), files); }), "files size:: 0\n");
    EXPECT_TRUE(files.empty());

    std::vector<std::string> kept{"x.png", "y.png"};
    EXPECT_EQ(stdoutOf([&] { getFiles((dir / "missing").string(), kept); }), "files size:: 2\n");
    EXPECT_EQ(kept.size(), 2u);
}

TEST(GetFiles, KeepsEntriesByNameWhateverTheirType) {
    TempDir dir;
    fs::create_directory(dir / "sub.png");
    fs::create_directory(dir / ".git.png");
    std::vector<std::string> files;
    EXPECT_EQ(stdoutOf([&] { getFiles(dir.str(), files); }), "files size:: 1\n");
    EXPECT_EQ(files, std::vector<std::string>{"sub.png"});
}

TEST(TransformImages2Mats, SortsNamesBytewiseAndLoadsEveryPng) {
    TempDir dir;
    writePngFolder(dir.path(), {"1.png", "2.png", "10.png", ".hidden.png", "x.PNG"},
                   {solidFrame(8, 6, cv::Scalar(1, 0, 0)), solidFrame(8, 6, cv::Scalar(2, 0, 0)),
                    solidFrame(8, 6, cv::Scalar(10, 0, 0)), solidFrame(8, 6),
                    solidFrame(8, 6)});
    std::ofstream(dir / "notes.txt") << "not a frame";

    std::vector<cv::Mat> mats;
    std::vector<std::string> names;
    const std::string out = stdoutOf([&] { transformImages2Mats(dir.str(), mats, names, 0, 0); });

    EXPECT_EQ(out, "files size:: 3\n");
    EXPECT_EQ(names, (std::vector<std::string>{"1.png", "10.png", "2.png"}));
    ASSERT_EQ(mats.size(), 3u);
    EXPECT_EQ(mats[0].at<cv::Vec3b>(0, 0)[0], 1);
    EXPECT_EQ(mats[1].at<cv::Vec3b>(0, 0)[0], 10);
    EXPECT_EQ(mats[2].at<cv::Vec3b>(0, 0)[0], 2);
}

TEST(TransformImages2Mats, SortOrderIsUnsignedBytes) {
    TempDir dir;
    const std::vector<std::string> written{"b.png", "a.png", "\xe4\xb8\xad.png", "A.png",
                                           "10.png", "9.png"};
    writePngFolder(dir.path(), written, std::vector<cv::Mat>(written.size(), solidFrame(4, 4)));
    std::vector<cv::Mat> mats;
    std::vector<std::string> names;
    stdoutOf([&] { transformImages2Mats(dir.str(), mats, names, 0, 0); });
    EXPECT_EQ(names, (std::vector<std::string>{"10.png", "9.png", "A.png", "a.png", "b.png",
                                               "\xe4\xb8\xad.png"}));
    EXPECT_EQ(mats.size(), 6u);
}

struct RangeCase {
    int startIndex;
    int endIndex;
    std::vector<int> positions;
};

TEST(TransformImages2Mats, LoadsTheRequestedRangeOfTenNames) {
    TempDir dir;
    writePositionFolder(dir.path(), numberedNames(10));
    const std::vector<int> all{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    const std::vector<RangeCase> cases{
        {-3, 0, all},                  // negative start counts as 0, end 0 loads to the last
        {0, 1, all},                   // end 1 also loads to the last
        {0, -7, all},
        {4, 1, {4, 5, 6, 7, 8, 9}},
        {0, 2, {0, 1, 2}},             // end 2 is the last position, inclusive
        {1, 2, {1, 2}},
        {2, 2, {2}},
        {3, 2, {}},                    // stop not past start
        {2, 100, {2, 3, 4, 5, 6, 7, 8, 9}},  // stops after the tenth name
        {9, 0, {9}},
        {10, 0, {}},
        {-5, 5, {0, 1, 2, 3, 4, 5}},
    };
    for (const RangeCase& c : cases) {
        SCOPED_TRACE("startIndex " + std::to_string(c.startIndex) + ", endIndex " +
                     std::to_string(c.endIndex));
        std::vector<cv::Mat> mats{cv::Mat(1, 1, CV_8UC1, cv::Scalar(7))};
        std::vector<std::string> names;
        const std::string out = stdoutOf(
            [&] { transformImages2Mats(dir.str(), mats, names, c.startIndex, c.endIndex); });
        EXPECT_EQ(out, "files size:: 10\n");
        EXPECT_EQ(names, numberedNames(10));
        ASSERT_GE(mats.size(), 1u);
        EXPECT_EQ(mats[0].type(), CV_8UC1) << "entries already in the list are kept";
        EXPECT_EQ(positionsOf(mats, 1), c.positions);
    }
}

TEST(TransformImages2Mats, StartAtTheNameCountLeavesTheListUntouched) {
    TempDir dir;
    writePositionFolder(dir.path(), numberedNames(5));
    cv::Mat sentinel(2, 2, CV_8UC1, cv::Scalar(3));
    std::vector<cv::Mat> mats{sentinel};
    std::vector<std::string> names;
    stdoutOf([&] { transformImages2Mats(dir.str(), mats, names, 5, 0); });
    ASSERT_EQ(mats.size(), 1u);
    EXPECT_EQ(mats[0].data, sentinel.data);
    EXPECT_EQ(names.size(), 5u);
}

TEST(TransformImages2Mats, NamesHoldTheWholeFolderWhenOnlyARangeIsLoaded) {
    TempDir dir;
    writePositionFolder(dir.path(), numberedNames(5));
    std::vector<cv::Mat> mats;
    std::vector<std::string> names;
    stdoutOf([&] { transformImages2Mats(dir.str(), mats, names, 1, 2); });
    EXPECT_EQ(names, numberedNames(5));
    EXPECT_EQ(positionsOf(mats), (std::vector<int>{1, 2}));
}

TEST(TransformImages2Mats, FolderWithoutPngsLoadsNothing) {
    TempDir dir;
    std::ofstream(dir / "readme.txt") << "x";
    std::vector<cv::Mat> mats;
    std::vector<std::string> names;
    EXPECT_EQ(stdoutOf([&] { transformImages2Mats(dir.str(), mats, names, 0, 0); }),
              "files size:: 0\n");
    EXPECT_TRUE(mats.empty());
    EXPECT_TRUE(names.empty());
    EXPECT_EQ(stdoutOf([&] { transformImages2Mats((dir / "nope").string(), mats, names, 0, 0); }),
              "files size:: 0\n");
    EXPECT_TRUE(mats.empty());
}

TEST(TransformImages2Mats, EmptyAndCorruptFilesBecomeEmptyMatricesInPlace) {
    TempDir dir;
    writePngFolder(dir.path(), {"0.png", "3.png"},
                   {solidFrame(8, 6, cv::Scalar(5, 6, 7)), solidFrame(8, 6, cv::Scalar(9, 9, 9))});
    writeEmptyFile(dir / "1.png");
    writeCorruptPng(dir / "2.png");

    std::vector<cv::Mat> mats;
    std::vector<std::string> names;
    stdoutOf([&] { transformImages2Mats(dir.str(), mats, names, 0, 0); });
    ASSERT_EQ(mats.size(), 4u);
    EXPECT_EQ(mats[0].at<cv::Vec3b>(0, 0), cv::Vec3b(5, 6, 7));
    EXPECT_TRUE(mats[1].empty());
    EXPECT_TRUE(mats[2].empty());
    EXPECT_EQ(mats[3].at<cv::Vec3b>(0, 0), cv::Vec3b(9, 9, 9));

    // The same within a range: entry k stands for names[start + k].
    std::vector<cv::Mat> ranged;
    std::vector<std::string> rangedNames;
    stdoutOf([&] { transformImages2Mats(dir.str(), ranged, rangedNames, 1, 2); });
    ASSERT_EQ(ranged.size(), 2u);
    EXPECT_TRUE(ranged[0].empty());
    EXPECT_TRUE(ranged[1].empty());
}

TEST(TransformImages2Mats, DirectoryNamedLikeAFrameBecomesAnEmptyMatrix) {
    TempDir dir;
    writePngFolder(dir.path(), {"0.png", "2.png"}, {solidFrame(8, 6), solidFrame(8, 6)});
    fs::create_directory(dir / "1.png");
    std::vector<cv::Mat> mats;
    std::vector<std::string> names;
    std::string out;
    ASSERT_NO_THROW(out = stdoutOf([&] { transformImages2Mats(dir.str(), mats, names, 0, 0); }));
    EXPECT_EQ(out, "files size:: 3\n");
    ASSERT_EQ(mats.size(), 3u);
    EXPECT_FALSE(mats[0].empty());
    EXPECT_TRUE(mats[1].empty());
    EXPECT_FALSE(mats[2].empty());
}

TEST(TransformImages2Mats, FileWithoutReadPermissionBecomesAnEmptyMatrix) {
    TempDir dir;
    writePngFolder(dir.path(), {"0.png", "1.png"}, {solidFrame(8, 6), solidFrame(8, 6)});
    const fs::path locked = dir / "1.png";
    ASSERT_EQ(chmod(locked.c_str(), 0), 0);
    if (std::ifstream(locked).is_open()) {
        GTEST_SKIP() << "permission bits do not stop this user from reading (running as root)";
    }
    std::vector<cv::Mat> mats;
    std::vector<std::string> names;
    ASSERT_NO_THROW(stdoutOf([&] { transformImages2Mats(dir.str(), mats, names, 0, 0); }));
    ASSERT_EQ(mats.size(), 2u);
    EXPECT_FALSE(mats[0].empty());
    EXPECT_TRUE(mats[1].empty());
}

TEST(TransformImages2Mats, DecodesInColour) {
    TempDir dir;
    cv::Mat grey(6, 8, CV_8UC1, cv::Scalar(77));
    cv::Mat deep(6, 8, CV_16UC3, cv::Scalar(65535, 0, 256));
    ASSERT_TRUE(cv::imwrite((dir / "0.png").string(), grey));
    ASSERT_TRUE(cv::imwrite((dir / "1.png").string(), deep));
    std::vector<cv::Mat> mats;
    std::vector<std::string> names;
    stdoutOf([&] { transformImages2Mats(dir.str(), mats, names, 0, 0); });
    ASSERT_EQ(mats.size(), 2u);
    EXPECT_EQ(mats[0].type(), CV_8UC3);
    EXPECT_EQ(mats[0].at<cv::Vec3b>(5, 7), cv::Vec3b(77, 77, 77));
    EXPECT_EQ(mats[1].type(), CV_8UC3);
    EXPECT_EQ(mats[1].at<cv::Vec3b>(0, 0), cv::Vec3b(255, 0, 1));
}

TEST(TransformImages2Mats, FramesOwnTheirBuffers) {
    TempDir dir;
    writePositionFolder(dir.path(), numberedNames(3));
    std::vector<cv::Mat> mats;
    std::vector<std::string> names;
    stdoutOf([&] { transformImages2Mats(dir.str(), mats, names, 0, 0); });
    ASSERT_EQ(mats.size(), 3u);
    EXPECT_NE(mats[0].data, mats[1].data);
    EXPECT_NE(mats[1].data, mats[2].data);
    EXPECT_NE(mats[0].data, mats[2].data);
}

TEST(TransformImages2Mats, DecoderExceptionsPassThrough) {
    // A header declaring 40000 x 40000 pixels exceeds the decoder's size
    // limit; OpenCV raises cv::Exception for it rather than returning empty.
    TempDir dir;
    writeDeclaredSizePng(dir / "0.png", 40000, 40000);
    std::vector<cv::Mat> mats;
    std::vector<std::string> names;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_THROW(transformImages2Mats(dir.str(), mats, names, 0, 0), cv::Exception);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "files size:: 1\n");
    testing::internal::GetCapturedStderr();
}

// ------------------------------------------------------------------ video

std::vector<cv::Mat> threeColourFrames() {
    return {solidFrame(64, 48, cv::Scalar(200, 30, 30)), solidFrame(64, 48, cv::Scalar(30, 200, 30)),
            solidFrame(64, 48, cv::Scalar(30, 30, 200))};
}

// Files in @p dir, names only.
std::set<std::string> entriesOf(const fs::path& dir) {
    std::set<std::string> entries;
    for (const auto& entry : fs::directory_iterator(dir)) {
        entries.insert(entry.path().filename().string());
    }
    return entries;
}

class VideoFrames : public testing::TestWithParam<const char*> {};

TEST_P(VideoFrames, DecodesEveryFrameAndSavesNumberedPngs) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path video = dir / (std::string("clip") + GetParam());
    const std::vector<cv::Mat> source = threeColourFrames();
    ASSERT_TRUE(writeVideo(video, source, 10.0));
    fs::create_directory(dir / "frames");

    std::vector<cv::Mat> mats;
    const std::string out = stdoutOf([&] { transformVideo2Mats(video.string(), mats); });

    EXPECT_EQ(out, "");
    ASSERT_EQ(mats.size(), 3u);
    EXPECT_EQ(entriesOf(dir / "frames"),
              (std::set<std::string>{"00018938.png", "00018939.png", "00018940.png"}));
    const char* saved[] = {"frames/00018938.png", "frames/00018939.png", "frames/00018940.png"};
    for (size_t k = 0; k < 3; ++k) {
        SCOPED_TRACE(k);
        ASSERT_EQ(mats[k].type(), CV_8UC3);
        ASSERT_EQ(mats[k].size(), cv::Size(64, 48));
        // Lossy codecs keep a solid colour close to the original.
        const cv::Scalar mean = cv::mean(mats[k]);
        for (int c = 0; c < 3; ++c) {
            EXPECT_NEAR(mean[c], source[k].at<cv::Vec3b>(0, 0)[c], 12.0);
        }
        // The saved file holds exactly the decoded frame (PNG is lossless).
        const cv::Mat reread = cv::imread(saved[k], cv::IMREAD_COLOR);
        ASSERT_FALSE(reread.empty());
        EXPECT_EQ(cv::norm(reread, mats[k], cv::NORM_INF), 0.0);
    }
    EXPECT_NE(mats[0].data, mats[1].data);
    EXPECT_NE(mats[1].data, mats[2].data);
    EXPECT_NE(mats[0].data, mats[2].data);
}

TEST_P(VideoFrames, WithoutAFramesFolderOnlyDecodes) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path video = dir / (std::string("clip") + GetParam());
    ASSERT_TRUE(writeVideo(video, threeColourFrames(), 10.0));

    std::vector<cv::Mat> mats;
    testing::internal::CaptureStderr();  // the encoder may complain about the missing folder
    const std::string out = stdoutOf([&] { transformVideo2Mats(video.string(), mats); });
    testing::internal::GetCapturedStderr();

    EXPECT_EQ(out, "");
    EXPECT_EQ(mats.size(), 3u);
    EXPECT_EQ(entriesOf(dir.path()), std::set<std::string>{video.filename().string()});
}

INSTANTIATE_TEST_SUITE_P(Containers, VideoFrames, testing::Values(".mp4", ".mkv"),
                         [](const testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param + 1);
                         });

TEST(TransformVideo2Mats, MissingVideoGivesNothing) {
    disableCameraBackend();
    TempDir dir;
    ScopedCwd cwd(dir.path());
    fs::create_directory(dir / "frames");
    cv::Mat sentinel(1, 1, CV_8UC1);
    std::vector<cv::Mat> mats{sentinel};
    testing::internal::CaptureStderr();
    const std::string out =
        stdoutOf([&] { transformVideo2Mats((dir / "absent.mp4").string(), mats); });
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "");
    ASSERT_EQ(mats.size(), 1u);
    EXPECT_EQ(mats[0].data, sentinel.data);
    EXPECT_TRUE(entriesOf(dir / "frames").empty());
}

TEST(TransformVideo2Mats, OverwritesFramesLeftByAnEarlierRun) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path video = dir / "clip.mkv";
    ASSERT_TRUE(writeVideo(video, threeColourFrames(), 10.0));
    fs::create_directory(dir / "frames");
    std::ofstream(dir / "frames" / "00018938.png") << "left over";

    std::vector<cv::Mat> mats;
    stdoutOf([&] { transformVideo2Mats(video.string(), mats); });
    ASSERT_EQ(mats.size(), 3u);
    const cv::Mat reread = cv::imread("frames/00018938.png", cv::IMREAD_COLOR);
    ASSERT_FALSE(reread.empty());
    EXPECT_EQ(cv::norm(reread, mats[0], cv::NORM_INF), 0.0);
}

}  // namespace
