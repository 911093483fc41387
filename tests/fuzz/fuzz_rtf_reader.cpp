// A file given to "Load Config": read as RTF, then written and read again, as
// saving the loaded view would, which must keep the text.
#include "fuzz_input.h"

#include "capture/rtf_reader.h"
#include "capture/rtf_writer.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const RichText text = RtfReader::read(wholeInput(data, size));
    const RichText again = RtfReader::read(RtfWriter::write(text));
    if (again.plainText() != text.plainText())
        std::abort();
    return 0;
}
