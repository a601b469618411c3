// Pieces the DSM-CC decoders share: object references and taps appear in
// download messages and in BIOP objects alike.
#pragma once

#include <string>

#include "dsmcc_reader.h"
#include "ts_decode.h"

namespace ts::dsmcc {

// The payload of a whole long-form section of the given table: from after
// last_section_number up to the CRC. False (with the reason) otherwise.
bool section_payload(const uint8_t* section, std::size_t length, uint8_t table_id, SectionHeader& header,
                     Reader& payload, Skipped& skipped);
bool read_tap(Reader& r, Tap& tap);
// Reads an IOP::IOR; false (with the reason in `skipped`) when it does not
// fit its bytes.
bool read_object_ref(Reader& r, ObjectRef& ref, Skipped& skipped);
std::string dump_tap(const Tap& tap);
std::string dump_object_ref(const ObjectRef& ref);

}  // namespace ts::dsmcc
