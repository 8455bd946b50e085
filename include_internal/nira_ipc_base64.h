// Base64 with the standard alphabet and "=" padding, on one line. No state: any thread may call.
#ifndef NIRA_IPC_BASE64_H
#define NIRA_IPC_BASE64_H

// Writes 4 characters for every 3 bytes begun, without a closing NUL, and their number to `*outputLength`, which must
// be able to hold it: `length` is at most 3 GiB. Does nothing when `outputLength` is null.
void b64_encode(const unsigned char* input, unsigned int length, unsigned char* output, unsigned int* outputLength);

// Writes the bytes to `output`, which has room for length / 4 * 3 of them, and their number to `*outputLength`. Returns
// 1; or 0, having written nothing, when `length` is no multiple of 4 or `outputLength` is null.
//
// Characters outside the alphabet count as "A". A group with "=" in it yields only the bytes that its characters make
// up, wherever in the text it stands; the places of the others are left as they were.
unsigned int b64_decode(const unsigned char* text, unsigned int length, unsigned char* output,
                        unsigned int* outputLength);

#endif  // NIRA_IPC_BASE64_H
