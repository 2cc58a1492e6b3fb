#include "platform/macos/clipboard.h"

#import <AppKit/AppKit.h>

#include "platform/macos/clipboard_text.h"

namespace sorvane::platform {

namespace {

// The marks of http://nspasteboard.org, which the programs that keep a history agreed upon.
NSPasteboardType const kConcealed = @"org.nspasteboard.ConcealedType";
NSPasteboardType const kTransient = @"org.nspasteboard.TransientType";

/// A copy that is wiped when the last who holds it lets it go; nil without memory.
NSData* wipedData(const base::SecretText& text) {
  const WipedBytes bytes(text);
  if (bytes.data == nullptr) return nil;
  return [[NSData alloc] initWithBytesNoCopy:bytes.data
                                      length:bytes.size
                                 deallocator:^(void* data, NSUInteger size) {
                                   WipedBytes::free(data, size);
                                 }];
}

}  // namespace

bool PasteboardClipboard::available() const {
  @autoreleasepool {
    const base::Lock lock(mutex_);
    return NSPasteboard.generalPasteboard != nil;
  }
}

std::optional<base::SecretText> PasteboardClipboard::read() {
  @autoreleasepool {
    const base::Lock lock(mutex_);
    // Bytes rather than a string, which would be one more copy that nobody wipes.
    NSData* const held = [NSPasteboard.generalPasteboard dataForType:NSPasteboardTypeString];
    return clipboardText({static_cast<const std::uint8_t*>(held.bytes), held.length});
  }
}

bool PasteboardClipboard::write(const base::SecretText& text) {
  @autoreleasepool {
    const base::Lock lock(mutex_);
    NSPasteboard* const pasteboard = NSPasteboard.generalPasteboard;
    written_.reset();
    if (pasteboard == nil) return false;
    if (text.empty()) {
      written_ = [pasteboard clearContents];
      return true;
    }
    NSData* const data = wipedData(text);
    NSData* const mark = [NSData data];
    // One item with its marks, so that nobody sees the text without them.
    NSPasteboardItem* const item = [[NSPasteboardItem alloc] init];
    if (data == nil || ![item setData:data forType:NSPasteboardTypeString] || ![item setData:mark forType:kConcealed] ||
        ![item setData:mark forType:kTransient]) {
      return false;
    }
    // The count that belongs to this text, whoever writes next.
    const NSInteger count = [pasteboard prepareForNewContentsWithOptions:NSPasteboardContentsCurrentHostOnly];
    if (![pasteboard writeObjects:[NSArray arrayWithObject:item]]) return false;
    written_ = count;
    return true;
  }
}

agent::StillThere PasteboardClipboard::lastWrite() {
  @autoreleasepool {
    const base::Lock lock(mutex_);
    NSPasteboard* const pasteboard = NSPasteboard.generalPasteboard;
    return pasteboard != nil && written_ == pasteboard.changeCount ? agent::StillThere::yes : agent::StillThere::no;
  }
}

}  // namespace sorvane::platform
