/* MacTypes.h -- the basic types of macOS's frameworks, for testing darwin code on another host. */
#ifndef MACTYPES_H
#define MACTYPES_H

typedef unsigned char Boolean;
typedef unsigned char UInt8;
typedef unsigned int UInt32;
typedef signed int SInt32;
typedef SInt32 OSStatus;

#endif
