// Prints the elements of an XML document, which the platform's reader reads from a
// file or, if none is named, from a text in memory.
//
// Status: 0, or 1 if the document is malformed, or 2 if it could not be opened or
// the command was wrong.
#include <windows.h>

#include <comdef.h>
#include <xmllite.h>

#include <sstream>
#include <string>

#include "examples/typed_values/Terminal.h"
#include "velt/diagnostics/Settings.h"
#include "velt/os/ComStreams.h"

_COM_SMARTPTR_TYPEDEF(IStream, __uuidof(IStream));
_COM_SMARTPTR_TYPEDEF(IXmlReader, __uuidof(IXmlReader));

namespace {

char const built_in[] = "<menu><soup/><main><fish/><rice/></main></menu>";

// The compiler has no import library for the platform's XML reader.
IXmlReaderPtr new_reader() {
  auto const library = LoadLibraryW(L"xmllite.dll");
  auto const make = reinterpret_cast<decltype(&CreateXmlReader)>(
      reinterpret_cast<void*>(GetProcAddress(library, "CreateXmlReader")));
  IXmlReaderPtr reader;
  if (make) make(__uuidof(IXmlReader), reinterpret_cast<void**>(&reader), nullptr);
  return reader;
}

int print_elements(IStream* document) {
  auto const reader = new_reader();
  if (!reader) return complain(L"com_stream: this system has no XML reader"), 2;
  reader->SetInput(document);
  XmlNodeType node;
  HRESULT result;
  while ((result = reader->Read(&node)) == S_OK) {
    if (node != XmlNodeType_Element) continue;
    wchar_t const* name = nullptr;
    unsigned depth = 0;
    reader->GetLocalName(&name, nullptr);
    reader->GetDepth(&depth);
    write(stream::output, std::wstring(2 * depth, L' ') + name + L'\n');
  }
  if (FAILED(result)) return complain(L"com_stream: malformed document"), 1;
  return 0;
}

int print_file(wchar_t const* name) {
  auto const file =
      CComFileStream::OpenFileStream(name, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
  if (!file) return complain(std::wstring(L"com_stream: cannot open '") + name + L"'"), 2;
  return print_elements(file);
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  SaveMiniDumpOnCppException = false;  // one line of text is enough
  try {
    if (count == 2) return print_file(arguments[1]);
    if (count == 1)
      return print_elements(CComStringStream::OpenStringStream(std::stringstream(built_in)));
    complain(L"usage: com_stream [FILE]");
  } catch (EGeneric const& error) {
    complain(L"com_stream", error);
  }
  return 2;
}
