#include "velt/debug/StreamWriter.h"

TStreamWriter::~TStreamWriter() = default;
