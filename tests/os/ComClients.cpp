// Clients of the platform, at work on both streams.
#include <gtest/gtest.h>
#include <windows.h>

#include <comdef.h>
#include <shlwapi.h>
#include <xmllite.h>

#include <functional>
#include <sstream>
#include <string>

#include "tests/os/ScratchFile.h"
#include "velt/os/ComFileStream.h"
#include "velt/os/ComStringStream.h"

_COM_SMARTPTR_TYPEDEF(IStorage, __uuidof(IStorage));
_COM_SMARTPTR_TYPEDEF(IStream, __uuidof(IStream));
_COM_SMARTPTR_TYPEDEF(IXmlReader, __uuidof(IXmlReader));
_COM_SMARTPTR_TYPEDEF(IXmlWriter, __uuidof(IXmlWriter));

namespace {

LARGE_INTEGER const start = {};

// Each test gets a stream and watches its count.
class ComClients : public ::testing::TestWithParam<bool> {
protected:
  ~ComClients() noexcept override { EXPECT_EQ(references(), before); }

  bool on_file() const { return GetParam(); }
  ULONG references() const {
    stream->AddRef();
    return stream->Release();
  }

  velt_test::ScratchFile const scratch;
  SmartPtr<CComFileStream> const file = MakeCounted<CComFileStream>(
      scratch.wide.c_str(), DWORD{GENERIC_READ | GENERIC_WRITE}, 0ul, DWORD{CREATE_ALWAYS});
  SmartPtr<CComStringStream> const string = MakeCounted<CComStringStream>();
  IStream* const stream =
      on_file() ? static_cast<IStream*>(file.get()) : static_cast<IStream*>(string.get());
  ULONG const before = references();
};

INSTANTIATE_TEST_SUITE_P(, ComClients, ::testing::Bool(), [](auto const& test) {
  return test.param ? "OnAFile" : "OnAString";
});

// The platform's, which the compiler has no import library for.
template <class Pointer>
Pointer xml_tool(char const* maker) {
  using Make = HRESULT(WINAPI*)(REFIID, void**, IMalloc*);
  auto const make = reinterpret_cast<Make>(
      reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(L"xmllite.dll"), maker)));
  Pointer tool;
  if (make) make(Pointer::GetIID(), reinterpret_cast<void**>(&tool), nullptr);
  return tool;
}

}  // namespace

TEST_P(ComClients, DocumentIsWrittenAndReadByThePlatform) {
  constexpr int items = 1000;  // of several buffers in all
  if (auto const writer = xml_tool<IXmlWriterPtr>("CreateXmlWriter")) {
    ASSERT_EQ(writer->SetOutput(stream), S_OK);
    EXPECT_GT(references(), before);
    writer->WriteStartDocument(XmlStandalone_Omit);
    writer->WriteStartElement(nullptr, L"items", nullptr);
    for (int i = 0; i < items; ++i)
      writer->WriteElementString(nullptr, L"item", nullptr, std::to_wstring(i).c_str());
    writer->WriteEndDocument();
    ASSERT_EQ(writer->Flush(), S_OK);
  }
  ASSERT_EQ(references(), before);
  ASSERT_EQ(stream->Seek(start, STREAM_SEEK_SET, nullptr), S_OK);

  auto const reader = xml_tool<IXmlReaderPtr>("CreateXmlReader");
  ASSERT_TRUE(reader);
  ASSERT_EQ(reader->SetInput(stream), S_OK);
  EXPECT_GT(references(), before);
  int found = 0;
  XmlNodeType node;
  while (reader->Read(&node) == S_OK) {
    if (node != XmlNodeType_Text) continue;
    WCHAR const* text = nullptr;
    reader->GetValue(&text, nullptr);
    EXPECT_EQ(text, std::to_wstring(found++));
  }
  EXPECT_EQ(found, items);
  EXPECT_EQ(reader->SetInput(nullptr), S_OK);
}

TEST_P(ComClients, HelpersOfTheShellReadAndWrite) {
  EXPECT_EQ(IStream_Write(stream, "some text", 9), S_OK);
  EXPECT_EQ(IStream_Reset(stream), S_OK);
  ULARGE_INTEGER size;
  EXPECT_EQ(IStream_Size(stream, &size), S_OK);
  EXPECT_EQ(size.QuadPart, on_file() ? 9u : 0u);
  char text[9];
  EXPECT_EQ(IStream_Read(stream, text, sizeof text), S_OK);
  EXPECT_EQ(std::string(text, sizeof text), "some text");
  EXPECT_NE(IStream_Read(stream, text, 1), S_OK);
}

TEST_P(ComClients, StreamOfACompoundDocumentIsCopiedInto) {
  std::string contents(100'000, '\0');
  for (std::size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>(i * i >> 3);
  IStoragePtr storage;
  IStreamPtr source;
  ASSERT_EQ(StgCreateDocfile(nullptr,
                             STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE |
                                 STGM_DELETEONRELEASE,
                             0, &storage),
            S_OK);
  ASSERT_EQ(storage->CreateStream(L"contents", STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0,
                                  &source),
            S_OK);
  ASSERT_EQ(IStream_Write(source, contents.data(), static_cast<ULONG>(contents.size())), S_OK);
  ASSERT_EQ(source->Seek(start, STREAM_SEEK_SET, nullptr), S_OK);
  ULARGE_INTEGER const all = {.QuadPart = contents.size()};
  ULARGE_INTEGER read, written;
  EXPECT_EQ(source->CopyTo(stream, all, &read, &written), S_OK);
  EXPECT_EQ(read.QuadPart, contents.size());
  EXPECT_EQ(written.QuadPart, contents.size());

  std::string copied(contents.size(), '\0');
  ASSERT_EQ(stream->Seek(start, STREAM_SEEK_SET, nullptr), S_OK);
  EXPECT_EQ(IStream_Read(stream, copied.data(), static_cast<ULONG>(copied.size())), S_OK);
  EXPECT_TRUE(copied == contents);
}
