#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/resource.h>

#include "common/CDataStream.h"
#include "common/UniqueHandle.h"
#include "support/TraceEnv.h"

namespace {

std::string Contents(const CDataStream& s)
{
    return std::string(reinterpret_cast<const char*>(s.GetData()), s.GetSize());
}

} // namespace

TEST(CDataStream, CopiesAreIndependentAndRangesOutOfItselfAreSafe)
{
    char buf[] = {'a', '\0', 'b', '\xff'};
    CDataStream a(buf, sizeof buf);
    buf[0] = 'z';
    EXPECT_EQ(Contents(a), std::string("a\0b\xff", 4));
    EXPECT_TRUE(CDataStream(nullptr, 10).IsEmpty());
    CDataStream b = a, c;
    c = a;
    b.GetBuffer()[0] = 'J';
    a.SetAt("bye", 3);
    EXPECT_EQ(Contents(c), std::string("a\0b\xff", 4));
    EXPECT_FALSE(a == c);
    a.Append(nullptr, 4);
    a.Append("?", 0);
    a.Append("!", 1);
    EXPECT_EQ(Contents(a), "bye!");
    // A range just below the other's storage is no part of it.
    CDataStream& low = std::less<>()(a.GetData(), c.GetData()) ? a : c, &high = &low == &a ? c : a;
    const std::string both = Contents(high) + Contents(low);
    high.Append(low.GetData(), low.GetSize());
    EXPECT_EQ(Contents(high), both);
    c.SetAt("x", 0);
    a.SetAt(nullptr, 3);
    EXPECT_TRUE(a.IsEmpty() && c.IsEmpty());
    CDataStream s("0123456789", 10);
    s.SetAt(s.GetData() + 2, 5);
    EXPECT_EQ(Contents(s), "23456");
    for (int i = 0; i < 6; ++i)  // each append doubles: forces the storage to move
        s.Append(s.GetData(), s.GetSize());
    EXPECT_TRUE(s.GetSize() == 5u * 64 && Contents(s).substr(s.GetSize() - 10) == "2345623456");
}

// Every failure keeps the contents and is traced (an error entry) with the
// text kept as the last error; a file longer than the cap is refused whole.
TEST(CDataStream, ReadFromFileReadsWholeFilesOrFailsKeepingTheContents)
{
    testsupport::GlobalTrace trace;
    testsupport::TempDir dir;
    std::string data;
    for (int i = 0; i < 70000; ++i)  // more than one read step, every byte value
        data.push_back(static_cast<char>(i * 7));
    const std::string blob = dir.Sub("blob"), missing = dir.Sub("no-such-file");
    ASSERT_TRUE(testsupport::WriteFile(blob, data));
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("empty"), ""));
    const std::string empty = "CDataStream::ReadFromFile() : Argument file path is empty!";
    auto unreadable = [](const std::string& path) {
        return "CDataStream::ReadFromFile() : Could not read file : '" + path + "'";
    };
    const struct {
        const char* path;
        size_t cap;
        std::string error;
    } failures[] = {
        {"", CDataStream::kMaxFileSize, empty},
        {nullptr, CDataStream::kMaxFileSize, empty},
        {missing.c_str(), CDataStream::kMaxFileSize, unreadable(missing)},
        {dir.Path().c_str(), CDataStream::kMaxFileSize, unreadable(dir.Path())},
        {blob.c_str(), data.size() - 1, unreadable(blob)},
    };
    for (const auto& c : failures) {
        CDataStream s("keep", 4);
        EXPECT_FALSE(s.ReadFromFile(c.path, c.cap));
        EXPECT_EQ(s.GetLastError() + "|" + Contents(s), c.error + "|keep");
        EXPECT_TRUE(trace.Has(c.error)) << c.error;
    }
    CDataStream s("old", 3);
    ASSERT_TRUE(s.ReadFromFile(blob.c_str(), data.size()));
    EXPECT_TRUE(Contents(s) == data && s.GetLastError().empty());
    EXPECT_TRUE(s.ReadFromFile(dir.Sub("empty").c_str()) && s.IsEmpty());
}

// A file that fits the cap but not the memory the process may use: the allocation fails and the
// stream keeps its contents.  The address space is limited to what the process uses plus 256 MiB
// for the one read; the sanitizers reserve far more than that, so the case cannot run there.
TEST(CDataStream, ReadFromFileOutOfMemoryFailsKeepingTheContents)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "RLIMIT_AS cannot be used under a sanitizer";
#endif
    testsupport::TempDir dir;
    const std::string sparse = dir.Sub("sparse");  // 4 GiB without a block on disk
    UniqueFd fd(open(sparse.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_TRUE(fd && ftruncate(fd.Get(), off_t{1} << 32) == 0);
    const std::string status = testsupport::ReadFile("/proc/self/status");
    const rlim_t used = std::stoull(status.substr(status.find("VmSize:") + 7)) << 10;
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &old), 0);
    rlimit low = old;
    low.rlim_cur = std::min(old.rlim_max, used + (rlim_t{256} << 20));
    CDataStream s("keep", 4);
    ASSERT_EQ(setrlimit(RLIMIT_AS, &low), 0);
    const bool read = s.ReadFromFile(sparse.c_str());
    ASSERT_EQ(setrlimit(RLIMIT_AS, &old), 0);
    EXPECT_FALSE(read);
    EXPECT_EQ(s.GetLastError() + "|" + Contents(s),
              "CDataStream::ReadFromFile() : Could not read file : '" + sparse + "'|keep");
}

TEST(CDataStream, DumpHexLayoutAndReader)
{
    std::string bytes = "ABCDEFGHIJKLMNOP" + std::string("\x00\x7f\x20", 3);
    CDataStream s(bytes.data(), bytes.size());
    EXPECT_EQ(s.DumpHex(), "00000000  41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50  ABCDEFGHIJKLMNOP\n"
                           "00000010  00 7F 20" + std::string(13 * 3, ' ') + "  .. \n");
    EXPECT_EQ(CDataStream().DumpHex(), "");
    EXPECT_EQ(s.Reader().Le16Or(16, 1), 0x7F00);
    EXPECT_FALSE(s.Reader().ReadLe32(17).has_value());
}
