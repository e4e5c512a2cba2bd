#pragma once

#include <cstdint>

// The verdict of a signer or a signature.
enum ProcessingResult : int32_t {
    ResultNotSigned = 0,
    ResultSigned = 1,
    ResultInvalidSignature = 2,
    ResultInvalidHash = 3,
    ResultInvalidStructure = 4,
    ResultInternalError = 5,
    ResultHeaderOnlySigned = 8,  // a header signature without a header-and-payload signature
};
