// Books as the library keeps them together. A book has four pieces: its own database on the
// server (made from a template or copied), the row of UserBookTbl in it, the row of BookCommonTBL
// in the system database whose T_Index is the book id, and one row of BookShelfInfoTBL that puts
// it on a shelf. Nothing spans the pieces in one transaction: the order of the steps decides what
// a failure leaves behind, and each operation below keeps that order.
//
// Each operation gives 1 on success and 0 on failure; a failing server method leaves its code in
// lastError.
//
// Choices of this library where the data model leaves room:
// - MVDeleteBook stops (mutex released, -1) when the shelf it names cannot be read or does not
//   exist, and when the cover of a book to be ended cannot be read: nothing is removed then.
// - MVCreateBook tests the new name's mutex and takes it in two calls and does not look at the
//   taking; two clients in the same second are told apart by the server, which refuses a second
//   database of the same name.
// - Lists of a shelf's book ids live in the library's own memory; only the lists handed to the
//   application are blocks of global memory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mv {

// "BOOK" and the local time as month, day, hour, minute, second: a new book's database name.
std::string newBookDbName();

// The ids of the books on a shelf, in display order (OrderNo, then the link's T_Index) where the
// table has OrderNo, else in the server's order.
int bookIdsOfShelf(int32_t shelfId, std::vector<int32_t>& bookIds);

// The book's link: its own T_Index and the shelf it names (the first link the server gives).
int linkOfBook(int32_t bookId, int32_t* linkIndex, int32_t* shelfId);

// Links a book to a shelf; the link gets no position, so the book comes last.
int addLink(int32_t shelfId, int32_t bookId);

// Copies a book into a new database and onto `shelfId`: the database `bookName`, the cover of
// `bookId` (the two are not compared). `*newBookId` gets the copy's id.
int copyBook(int32_t shelfId, int32_t bookId, const char* bookName, int32_t* newBookId);

// Relinks a book to `toShelfId`, recording `fromShelfId` as the shelf it came from, and puts it
// last there. Neither a mutex nor a permission is asked for.
int moveBook(int32_t fromShelfId, int32_t toShelfId, int32_t bookId);

// Deletes the book's row of BookCommonTBL / its link.
int dropBookRow(int32_t bookId);
int dropLink(int32_t bookId);

}  // namespace mv
