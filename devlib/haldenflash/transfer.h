// Sends the blocks of images and takes the verdicts on them, for every device alike: what differs is in imagetable.h.
// Everything runs on the caller's thread, on an enabled port. Only one transfer at a time may use a port.
#pragma once

#include "devlib/haldenflash/imagetable.h"

#include <cstdio>
#include <span>

constexpr Int32 kFreshBlock = 3; // retries of a block that was not refused yet

// An image under way: its row, and the fields of the update record that it has.
struct Transfer {
    const ImageRow &row;
    FILE **file; // the open image; null: not sent, or done
    Int32 *currentBlock;
    Int32 totalBlock;
    Int32 *retries; // kFreshBlock, one less after each refusal
};

// The images that one device gets, in the order of their blocks.
using Transfers = std::span<const Transfer>;

// Sends the open images until they are done or the update ends. printFailure is called if a block was not sent.
// Returns what SendNextBlock or the silence of the device ends with. An image may be open still after a failure.
eErrorT SendImages(Transfers images, void (*printFailure)());

// Moves on as the verdict says: to the next block, or to a retry. An unknown verdict is printed, and the same number is
// sent once more. An accepted last block also moves the next image to its first block.
void TakeVerdict(Transfers images, UInt8 verdict);

// Sends the current block of the first image that has one, and closes an image whose last block is done.
// kNoError            sent. Or there is nothing to send: the retries are used up, or no image is open.
// kEndOfFile          the last block of an image was done that says so in its row. The image is closed.
// kFuncReturnedError  the block was not read or not sent, which is printed. Its image is closed.
eErrorT SendNextBlock(Transfers images);

// Prints which block is sent: two bytes of number, high byte first, and the data. A message of size 0 is an empty
// frame. A null message is a programming error and stops the program.
// kNoError       there is something to send.
// kBadParameter  the device has no empty frame, which is printed.
eErrorT AnnounceBlock(const ImageRow &row, const UInt8 *msgPtr, Int32 msgSize);

// Sends an announced block in a frame.
// kNoError            sent.
// kFuncReturnedError  the write was short or failed, which is printed. The device may have got a part of it.
// Any other failure is that of buildKoraToHaldenMsg.
eErrorT SendAnnouncedBlock(const ImageRow &row, const UInt8 *msgPtr, Int32 msgSize);
