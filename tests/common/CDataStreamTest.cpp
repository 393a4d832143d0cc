#include <gtest/gtest.h>

#include <string>

#include "support/TestSupport.h"
#include "common/CDataStream.h"

using testsupport::TempDir;

namespace {

std::string Contents(const CDataStream& s)
{
    return std::string(reinterpret_cast<const char*>(s.GetData()), s.GetSize());
}

} // namespace

TEST(CDataStream, ConstructionCopiesTheBytes)
{
    char buf[] = {'a', '\0', 'b', '\xff'};
    CDataStream s(buf, sizeof buf);
    buf[0] = 'z';
    EXPECT_EQ(Contents(s), std::string("a\0b\xff", 4));
    EXPECT_EQ(s.GetSize(), 4u);
    EXPECT_FALSE(s.IsEmpty());

    CDataStream none(nullptr, 10);
    EXPECT_TRUE(none.IsEmpty());
    EXPECT_EQ(none.GetSize(), 0u);
}

TEST(CDataStream, CopiesAreIndependent)
{
    CDataStream a("hello", 5);
    CDataStream b = a;
    EXPECT_TRUE(a == b);
    b.GetBuffer()[0] = 'J';
    EXPECT_EQ(Contents(a), "hello");
    EXPECT_EQ(Contents(b), "Jello");

    CDataStream c;
    c = a;
    a.SetAt("bye", 3);
    EXPECT_EQ(Contents(c), "hello");
    EXPECT_FALSE(a == c);
}

TEST(CDataStream, SetAtAppendAndClear)
{
    CDataStream s("abc", 3);
    s.SetAt("12345", 5);
    EXPECT_EQ(Contents(s), "12345");
    s.Append("67", 2);
    EXPECT_EQ(Contents(s), "1234567");
    s.Append(nullptr, 4);
    EXPECT_EQ(s.GetSize(), 7u);
    s.SetAt(nullptr, 3);
    EXPECT_TRUE(s.IsEmpty());
    s.SetAt("x", 1);
    s.Clear();
    EXPECT_TRUE(s.empty());
}

TEST(CDataStream, RangesOutOfItselfAreSafe)
{
    CDataStream s("0123456789", 10);
    s.SetAt(s.GetData() + 2, 5);
    EXPECT_EQ(Contents(s), "23456");
    for (int i = 0; i < 6; ++i)  // each append doubles: forces the storage to move
        s.Append(s.GetData(), s.GetSize());
    EXPECT_EQ(s.GetSize(), 5u * 64);
    EXPECT_EQ(Contents(s).substr(0, 15), "234562345623456");
    EXPECT_EQ(Contents(s).substr(s.GetSize() - 5), "23456");
}

TEST(CDataStream, ReadFromFileRejectsEmptyPath)
{
    CDataStream s("keep", 4);
    EXPECT_FALSE(s.ReadFromFile(""));
    EXPECT_EQ(s.GetLastError(), "CDataStream::ReadFromFile() : Argument file path is empty!");
    EXPECT_EQ(Contents(s), "keep");
    EXPECT_FALSE(s.ReadFromFile(nullptr));
    EXPECT_EQ(s.GetLastError(), "CDataStream::ReadFromFile() : Argument file path is empty!");
}

TEST(CDataStream, ReadFromFileReportsUnreadableFiles)
{
    TempDir dir;
    CDataStream s("keep", 4);
    std::string missing = dir.Sub("no-such-file");
    EXPECT_FALSE(s.ReadFromFile(missing.c_str()));
    EXPECT_EQ(s.GetLastError(), "CDataStream::ReadFromFile() : Could not read file : '" + missing + "'");
    EXPECT_EQ(Contents(s), "keep");

    EXPECT_FALSE(s.ReadFromFile(dir.Path().c_str()));  // a directory is no file
    EXPECT_EQ(s.GetLastError(), "CDataStream::ReadFromFile() : Could not read file : '" + dir.Path() + "'");
    EXPECT_EQ(Contents(s), "keep");
}

TEST(CDataStream, ReadFromFileReadsBinaryContents)
{
    TempDir dir;
    std::string data;
    for (int i = 0; i < 70000; ++i)  // more than one read chunk, every byte value
        data.push_back(static_cast<char>(i * 7));
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("blob"), data));
    CDataStream s("old", 3);
    ASSERT_TRUE(s.ReadFromFile(dir.Sub("blob").c_str()));
    EXPECT_EQ(Contents(s), data);
    EXPECT_TRUE(s.GetLastError().empty());

    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("empty"), ""));
    ASSERT_TRUE(s.ReadFromFile(dir.Sub("empty").c_str()));
    EXPECT_TRUE(s.IsEmpty());

    ASSERT_TRUE(s.ReadFromFile(dir.Sub("blob").c_str(), 100));  // capped
    EXPECT_EQ(Contents(s), data.substr(0, 100));
}

TEST(CDataStream, DumpHexLayout)
{
    std::string bytes = "ABCDEFGHIJKLMNOP";
    bytes += std::string("\x00\x7f\x20", 3);
    CDataStream s(bytes.data(), bytes.size());
    std::string expected =
        "00000000  41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50  ABCDEFGHIJKLMNOP\n"
        "00000010  00 7F 20" + std::string(13 * 3, ' ') + "  .. \n";
    EXPECT_EQ(s.DumpHex(), expected);
    EXPECT_EQ(CDataStream().DumpHex(), "");
}

TEST(CDataStream, ReaderSeesCurrentContents)
{
    CDataStream s("\x01\x02\x03", 3);
    CByteReader r = s.Reader();
    EXPECT_EQ(r.Size(), 3u);
    EXPECT_EQ(r.Le16Or(1), 0x0302);
    EXPECT_FALSE(r.ReadLe32(0).has_value());
}
