// Sends the blocks of images and takes the verdicts on them. It serves every device; what differs is in imagetable.h.
// Owner:   the caller owns the port, which is enabled, and the update record.
// Locking: a transfer has no lock. It runs on the caller's thread. Only one transfer at a time may use a port.
#pragma once

#include "devlib/haldenflash/imagetable.h"

#include <cstdio>
#include <span>

constexpr Int32 kFreshBlock = 3; // retries of a block that was not refused yet

// An image under way: its row, and its fields in the update record.
struct Transfer {
    const ImageRow &row;
    FILE **file; // the open image; null: not sent, or done
    Int32 *currentBlock;
    Int32 totalBlock;
    Int32 *retries; // kFreshBlock, one less after each refusal
};

// The images that one device gets, in the order of their blocks.
using Transfers = std::span<const Transfer>;

// Sends the open images until they are done or the update ends. printFailure is called if a block was not sent. Returns
// the result of the last SendNextBlock, or the device's result for silence. After a failure an image may still be open.
eErrorT SendImages(Transfers images, void (*printFailure)());

// Moves on as the verdict says: to the next block, or to a retry. An unknown verdict is printed, and the same number is
// sent once more. An accepted last block also moves the next image to its first block.
void TakeVerdict(Transfers images, UInt8 verdict);

// Sends the current block of the first image that has one, and closes an image whose last block is done.
// kNoError            sent. Or there is nothing to send: the retries are used up, or no image is open.
// kEndOfFile          the last block is done, and the device has this result for it. The image is closed.
// kFuncReturnedError  the block was not read or not sent, which is printed. Its image is closed.
eErrorT SendNextBlock(Transfers images);

// Prints the number of a block that is about to be sent. A message is two bytes of number, high byte first, and the
// data. A message of size 0 is an empty frame; msgPtr has the number even then. A null message is a programming error
// and stops the program.
// kNoError       the block may be sent.
// kBadParameter  the frame would be empty, and the device takes no empty frame. This is printed.
eErrorT AnnounceBlock(const DeviceRow &device, const UInt8 *msgPtr, Int32 msgSize);

// Sends an announced block in a frame.
// kNoError            sent.
// kFuncReturnedError  the write was short or failed, which is printed. The device may have got a part of the frame.
// kBadParameter       the row's message type is not valid, which is printed. Nothing was sent.
eErrorT SendAnnouncedBlock(const ImageRow &row, const UInt8 *msgPtr, Int32 msgSize);
