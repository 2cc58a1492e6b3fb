// Three faults that a check of the macOS files must find: a function called with another kind of object than it takes, a
// message that the class does not know, and a reference of Core Foundation handed over without saying who owns it.

#include <Foundation/Foundation.h>
#include <Security/Security.h>

#include <string>

OSStatus wrongKind(CFStringRef name) { return SecItemDelete(name); }
std::string unknownMessage(NSError* error) { return error.localisedDescription.UTF8String; }
NSString* nobodysReference(CFStringRef text) { return (NSString*)text; }
