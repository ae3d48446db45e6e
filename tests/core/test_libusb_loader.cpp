// The search for libusb-1.0 with stand-in libraries (fake_libusb.cpp) under the candidate names
// in a temporary directory.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "transport/libusb_loader.hpp"

#if defined(_WIN32)
#include <process.h>
#define getpid _getpid
#else
#include <unistd.h>
#endif

using namespace torvik::transport;
namespace fs = std::filesystem;

namespace {

enum class Put { Nothing, Whole, Lacking, Garbage };

// <root>/pkg is the module's directory, <root>/ext_lib the one beside it.
class Tree {
public:
    Tree() {
        static int count = 0;
        root_ = fs::temp_directory_path() / ("torvik-libusb-" + std::to_string(getpid()) + "-" + std::to_string(++count));
        fs::create_directories(root_ / "pkg");
        fs::create_directories(root_ / "ext_lib");
    }
    ~Tree() {
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
    std::string moduleDir() const { return (root_ / "pkg").string(); }
    fs::path beside() const { return root_ / "pkg" / "libusb-1.0.dll"; }
    fs::path extLib() const { return root_ / "ext_lib" / "libusb-1.0.dll"; }

    static void put(Put what, const fs::path& where) {
        switch (what) {
            case Put::Nothing: return;
            case Put::Whole: fs::copy_file(FAKE_LIBUSB, where); return;
            case Put::Lacking: fs::copy_file(FAKE_LIBUSB_LACKING, where); return;
            case Put::Garbage: std::ofstream(where) << "not a library\n"; return;
        }
    }

private:
    fs::path root_;
};

// The module's two private places, without the system's own (which this machine may have).
std::vector<std::string> privateCandidates(const Tree& t) {
    auto all = libusbCandidates(t.moduleDir());
    all.pop_back();
    return all;
}

struct SearchCase {
    const char* name;
    Put beside, ext_lib;
    int expect;                // 0: none loads, 1: the copy beside the module, 2: the one in ext_lib
    const char* tried_beside;  // how the copy beside the module is reported when skipped (null: not reported)
};

class Search : public ::testing::TestWithParam<SearchCase> {};

TEST_P(Search, TakesTheFirstCandidateThatLoadsWhole) {
    const SearchCase& c = GetParam();
    Tree t;
    Tree::put(c.beside, t.beside());
    Tree::put(c.ext_lib, t.extLib());
    LibusbLoader loader;
    std::vector<std::string> tried;
    const Libusb* api = loader.load(privateCandidates(t), &tried);

    const std::string beside = t.moduleDir() + "/libusb-1.0.dll";
    const std::string ext_lib = t.moduleDir() + "/../ext_lib/libusb-1.0.dll";
    if (c.expect == 0) {
        ASSERT_EQ(api, nullptr);
        EXPECT_EQ(loader.loaded(), nullptr);
        ASSERT_EQ(tried.size(), 2u);
        EXPECT_EQ(tried[1], ext_lib);  // not there: no reason needed
    } else {
        ASSERT_NE(api, nullptr);
        EXPECT_EQ(loader.loaded(), api);
        EXPECT_TRUE(fs::equivalent(api->path, c.expect == 1 ? t.beside() : t.extLib())) << api->path;
        EXPECT_STREQ(api->get_version()->describe, "fake libusb");  // the table points into the library
        EXPECT_EQ(tried.size(), c.expect == 1 ? 0u : 1u);
    }
    if (c.tried_beside) {
        ASSERT_FALSE(tried.empty());
        EXPECT_EQ(tried[0].rfind(beside, 0), 0u) << tried[0];
        EXPECT_NE(tried[0].find(c.tried_beside), std::string::npos) << tried[0];
    }
}

INSTANTIATE_TEST_SUITE_P(
    Loader, Search,
    ::testing::Values(SearchCase{"BesideFirst", Put::Whole, Put::Whole, 1, nullptr},
                      SearchCase{"ThenExtLib", Put::Nothing, Put::Whole, 2, ""},
                      SearchCase{"LackingSkipped", Put::Lacking, Put::Whole, 2, "(lacks libusb_cancel_transfer)"},
                      SearchCase{"GarbageSkipped", Put::Garbage, Put::Whole, 2, " ("},
                      SearchCase{"NoneLoads", Put::Lacking, Put::Nothing, 0, "(lacks libusb_cancel_transfer)"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Loader, CandidatesInTheirOrder) {
    const std::string sys = libusbSystemName();
#if defined(_WIN32)
    EXPECT_EQ(sys, "libusb-1.0.dll");
#else
    EXPECT_EQ(sys, "libusb-1.0.so.0");
#endif
    EXPECT_EQ(libusbCandidates("/m/pkg"),
              (std::vector<std::string>{"/m/pkg/libusb-1.0.dll", "/m/pkg/../ext_lib/libusb-1.0.dll", sys}));
    EXPECT_EQ(libusbCandidates(""), std::vector<std::string>{sys});
}

TEST(Loader, ALoadedLibraryStaysWhateverIsAskedLater) {
    Tree t;
    Tree::put(Put::Whole, t.beside());
    Tree::put(Put::Whole, t.extLib());
    LibusbLoader loader;
    const Libusb* first = loader.load({t.extLib().string()});
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(loader.load({t.beside().string()}), first);
    EXPECT_EQ(loader.load({}), first);
}

TEST(Loader, ThreadsAskingAtOnceGetOneLibrary) {
    Tree t;
    Tree::put(Put::Lacking, t.beside());
    Tree::put(Put::Whole, t.extLib());
    LibusbLoader loader;
    const auto candidates = privateCandidates(t);
    std::vector<const Libusb*> got(8);
    std::vector<std::thread> threads;
    for (auto& g : got) threads.emplace_back([&] { g = loader.load(candidates); });
    for (auto& th : threads) th.join();
    ASSERT_NE(got[0], nullptr);
    for (const Libusb* g : got) EXPECT_EQ(g, got[0]);
}

}  // namespace
