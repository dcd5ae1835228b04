// The machine itself, as far as a test can see it without changing it: what is different on Windows.
#include <gtest/gtest.h>
#include <windows.h>

#include "package/update_file.h"
#include "platform/d2xx.h"
#include "platform/platform.h"
#include "simulator/firmware_builder.h"
#include "tests/support/temporary_folder.h"

namespace tavo::test {
namespace {

using namespace std::chrono_literals;

std::string InCodePage(UINT codePage, const std::wstring& wide) {
  char text[MAX_PATH * 4] = "";
  WideCharToMultiByte(codePage, 0, wide.c_str(), -1, text, sizeof text, nullptr, nullptr);
  return text;
}

class WindowsPaths : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(m_folder); }
  void TearDown() override { std::filesystem::remove_all(m_folder); }

  // Writes an update file of one image, whose first byte is `value`.
  std::wstring Write(const wchar_t* name, std::uint8_t value) const {
    const std::string hex = tavosim::HexText({{value}, 0, 0});
    const bool zip = std::wstring_view(name).find(L".hex") == std::wstring_view::npos;
    const std::string content = zip ? tavosim::ZipArchive({{"a.hex", hex}}) : hex;
    tavosim::WriteFile(m_folder / name, content);
    return (m_folder / name).wstring();
  }

  // One for each test: they run at the same time, each in a process of its own.
  const std::filesystem::path m_folder =
      std::filesystem::temp_directory_path() /
      (L"tavo_p\u00e4ths_\u4e2d\u6587_\U0001F527_" + std::to_wstring(GetCurrentProcessId()));
};

int FirstByte(const std::string& path) {
  const std::vector<FirmwareImage> images = LoadUpdateFile(path);
  return images.empty() || images[0].data.empty() ? -1 : images[0].data[0];
}

TEST_F(WindowsPaths, UpdateFilesOfAnyNameOpen) {
  std::uint8_t value = 0;
  for (const wchar_t* name : {L"plain.hex", L"ger\u00e4t.hex", L"\u0416\u6f22.zip",
                              L"\U0001F600.hex", L"\u00fc\u0416.ZIP", L"with blank.zip"}) {
    ++value;
    const std::string path = InCodePage(CP_UTF8, Write(name, value));
    EXPECT_EQ(FirstByte(path), value) << path;
  }
}

// The system's own functions make and remove what is longer, by the form that this test must not pass
// to the library alone.
TEST_F(WindowsPaths, PathsLongerThanMostProgramsTakeOpenToo) {
  const std::wstring folder = m_folder.wstring() + L"\\" + std::wstring(200, L'x');
  const std::wstring file = folder + L"\\" + std::wstring(100, L'y') + L".hex";
  const std::wstring extended = LR"(\\?\)";
  ASSERT_TRUE(CreateDirectoryW((extended + folder).c_str(), nullptr));
  tavosim::WriteFile(extended + file, tavosim::HexText({{7}, 0, 0}));
  for (const std::wstring& path : {file, extended + file}) {
    EXPECT_EQ(FirstByte(InCodePage(CP_UTF8, path)), 7) << InCodePage(CP_UTF8, path);
  }
  EXPECT_NE(SystemPlatform().OpenLog(InCodePage(CP_UTF8, file), Links::Refuse), nullptr);
  DeleteFileW((extended + file).c_str());
  RemoveDirectoryW((extended + folder).c_str());
}

TEST(WindowsCodePage, APathInItOpensToo) {
  const std::filesystem::path file =
      std::filesystem::temp_directory_path() /
      (L"tavo_\u00e9\u00fc_" + std::to_wstring(GetCurrentProcessId()) + L".hex");
  tavosim::WriteFile(file, tavosim::HexText({{7}, 0, 0}));
  const std::string path = InCodePage(CP_ACP, file.wstring());
  const bool representable = path.find('?') == std::string::npos;
  EXPECT_EQ(FirstByte(path), representable ? 7 : -1) << "code page " << GetACP();
  std::filesystem::remove(file);
}

TEST_F(WindowsPaths, AnythingButAFileIsRefusedWithoutWaiting) {
  const std::wstring pipeName = L"\\\\.\\pipe\\tavo_test.hex";
  const HANDLE pipe =
      CreateNamedPipeW(pipeName.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, 1, 64, 64, 0, nullptr);
  ASSERT_NE(pipe, INVALID_HANDLE_VALUE);
  std::filesystem::create_directory(m_folder / "folder.hex");
  for (const std::wstring& path :
       {pipeName, (m_folder / "folder.hex").wstring(), std::wstring(L"\\\\.\\NUL.hex"),
        (m_folder / "missing.hex").wstring()}) {
    EXPECT_EQ(FirstByte(InCodePage(CP_UTF8, path)), -1) << InCodePage(CP_UTF8, path);
  }
  CloseHandle(pipe);
}

TEST_F(WindowsPaths, TheLogIsAppendedUnderAnyName) {
  const std::string path = InCodePage(CP_UTF8, (m_folder / L"l\u00f6g.log").wstring());
  for (const char* text : {"one", "two"}) {
    const FileHandle file = SystemPlatform().OpenLog(path, Links::Refuse);
    ASSERT_NE(file, nullptr);
    std::fputs(text, file.get());
  }
  EXPECT_EQ(FileText(m_folder / L"l\u00f6g.log"), "onetwo");
  EXPECT_EQ(SystemPlatform().OpenLog(path + "/none/a.log", Links::Refuse), nullptr);
}

TEST(PlatformWindows, PrintsToTheOutputOfTheHost) {
  const HANDLE console = GetStdHandle(STD_OUTPUT_HANDLE);
  for (const HANDLE none : {static_cast<HANDLE>(nullptr), INVALID_HANDLE_VALUE}) {
    SetStdHandle(STD_OUTPUT_HANDLE, none);
    SystemPlatform().Print("lost, and nothing else is");
  }
  HANDLE reader = nullptr;
  HANDLE writer = nullptr;
  ASSERT_TRUE(CreatePipe(&reader, &writer, nullptr, 0));
  SetStdHandle(STD_OUTPUT_HANDLE, writer);
  SystemPlatform().Print("at once\n");
  SetStdHandle(STD_OUTPUT_HANDLE, console);
  DWORD waiting = 0;
  PeekNamedPipe(reader, nullptr, 0, nullptr, &waiting, nullptr);
  EXPECT_EQ(waiting, 8U) << "flushed, and without a carriage return that the library did not write";
  CloseHandle(reader);
  CloseHandle(writer);
}

TEST(PlatformWindows, TellsThisExecutableAndATimeThatPasses) {
  wchar_t own[MAX_PATH] = L"";
  GetModuleFileNameW(nullptr, own, MAX_PATH);
  EXPECT_EQ(SystemPlatform().ExecutablePath(), InCodePage(CP_UTF8, own));
  const auto begin = SystemPlatform().MonotonicNow();
  const std::uint32_t tick = SystemPlatform().TickCount();
  SystemPlatform().Sleep(40ms);
  EXPECT_GE(SystemPlatform().MonotonicNow() - begin, 40ms);
  // The tick count moves in steps of up to 16 ms.
  EXPECT_GE(SystemPlatform().TickCount() - tick, 40U - 16U);
  EXPECT_LT(SystemPlatform().TickCount() - tick, 20'000U);
}

TEST(PlatformWindows, WithoutTheVendorsLibraryThereAreNoAdapters) {
  const std::unique_ptr<D2xx> adapters = MakeSystemD2xx();
  std::uint32_t count = 7;
  EXPECT_NE(adapters->CreateDeviceInfoList(&count), kD2xxOk);
  EXPECT_EQ(count, 0U);
  D2xxHandle handle = &count;
  EXPECT_NE(adapters->Open(0, &handle), kD2xxOk);
  EXPECT_EQ(handle, nullptr);
}

}  // namespace
}  // namespace tavo::test
