/* Helpers of the detection operators. Box coordinates of the decoding and list stages are inclusive pixel positions;
 * those of NonMaxSuppression are continuous.
 *
 * Counts and thresholds travel from one layer to the next in thread-local objects, so a chain of detection layers stays
 * on one thread, in order. They start at 0 and are never reset but by InitRpn. */
#ifndef OPKIT_HELPERS_DETECTION_H
#define OPKIT_HELPERS_DETECTION_H

#include "opkit/records.h"

OPKIT_BEGIN_C

extern OPKIT_API __thread uint32_t g_curBoxNum[256]; /* boxes in each class's list */
extern OPKIT_API __thread float g_maxWidth;          /* a box passes the filter when wider, */
extern OPKIT_API __thread float g_maxHeight;         /* when higher, */
extern OPKIT_API __thread float g_lowScoreThresh;    /* and when its score is at least this */
extern OPKIT_API __thread float g_nmsThresh;         /* overlap above which a box is suppressed */

/* One box of a list. */
typedef struct DetBox {
    float x1;        /*  0 */
    float y1;        /*  4 */
    float x2;        /*  8 */
    float y2;        /* 12 */
    float score;     /* 16 */
    int32_t classId; /* 20  set only where the tensors carry a class id */
    float area;      /* 24  set by InitArea */
} DetBox;
OPKIT_OFFSET(DetBox, y1, 4);
OPKIT_OFFSET(DetBox, x2, 8);
OPKIT_OFFSET(DetBox, y2, 12);
OPKIT_OFFSET(DetBox, score, 16);
OPKIT_OFFSET(DetBox, classId, 20);
OPKIT_OFFSET(DetBox, area, 24);
OPKIT_SIZE(DetBox, 28);

/* Clips x1, y1, x2, y2 in place to [0, maxX] and [0, maxY]; NaN becomes the upper bound.
 * Returns 0, or all ones when box is null. Threads: touches its arguments only. */
OPKIT_API uint32_t ClipBox(float* box, float maxX, float maxY);

/* Starts a chain: sets this thread's thresholds and box counts.
 *   thresholds  overlap, low score, height, width, in this order
 *   count       element 0: proposals, as a float
 *   merge       non-zero: one list of trunc(classNum * count) boxes; else trunc(count) boxes for each class
 * Returns 0; all ones with a message when, unmerged, classNum is not 1 to 256 (the thresholds are set by then).
 * Threads: writes thread-local state. */
OPKIT_API uint32_t InitRpn(float* thresholds, float* count, uint32_t merge, uint32_t classNum);

/* Gives classes 2 and up the boxes of class 1, with their own scores and class ids. Nothing below 3 classes.
 *   out         the decoded output, [classNum, fields, N], or [fields, classNum * N] when merge is non-zero
 *   scores      element i * classNum + c is the score of proposal i for class c
 *   hasClassId  non-zero: 6 fields, else 5; exactly 1: the sixth is written
 *   count       element 0: proposals, as a float
 * Returns 0, or all ones when a bounded copy fails. Threads: touches its arguments only. */
OPKIT_API uint32_t CopyNextClassInfo(float* out, float* scores, uint32_t classNum, uint32_t N, uint32_t merge,
                                     uint32_t hasClassId, float* count);

/* Reads this thread's g_curBoxNum[c] boxes of each class from field rows into records.
 *   data   [classNum, fields, classCapacity], compact; fields are x1, y1, x2, y2, score and, with hasClassId, class id
 *   boxes  [classNum, classCapacity]; area is not set
 * Threads: reads thread-local state. */
OPKIT_API void Input2Bbox(const float* data, DetBox* boxes, uint32_t classNum, uint32_t hasClassId,
                          uint32_t classCapacity);

/* The way back: writes this thread's g_curBoxNum[c] boxes of each class to field rows of outWidth floats.
 *   out     [classNum, fields, outWidth], or one set of rows [fields, outWidth] for all classes when packed is non-zero
 * Threads: reads thread-local state. */
OPKIT_API void Bbox2Output(const DetBox* boxes, float* out, uint32_t classNum, uint32_t hasClassId,
                           uint32_t classCapacity, uint32_t outWidth, uint32_t packed);

/* Sets area = (y2 - y1 + 1) * (x2 - x1 + 1) for *count boxes. Threads: touches its arguments only. */
OPKIT_API void InitArea(DetBox* boxes, uint32_t* count);

/* Intersection and union of two boxes whose area is set. Threads: touches its arguments only. */
OPKIT_API void NmsOperator(DetBox* a, DetBox* b, float* inter, float* uni);

/* Suppresses, in list order, every box that overlaps a kept one by inter > thresh * union, and keeps at most maxKeep.
 * Kept boxes move to the front, *count becomes their number. The list is not sorted first.
 * Returns 0; all ones with a message, the list untouched but for the areas, when memory runs out.
 * Threads: touches its arguments only. */
OPKIT_API uint32_t DoNms(DetBox* boxes, uint32_t* count, uint32_t maxKeep, float thresh);

/* Keeps, in order and at most maxKeep, the boxes with score at or above `score` and extents strictly above `width` and
 * `height`; *count becomes their number. Threads: touches its arguments only. */
OPKIT_API void DoFilterBox(DetBox* boxes, uint32_t* count, uint32_t maxKeep, float score, float width, float height);

/* Run one stage over the lists of all classes, class c's at boxes[c * classCapacity], by this thread's counts and
 * thresholds. fieldNum is not used, nor is maxKeep by the sort. Lists of 0 or 1 boxes are only filtered.
 * Threads: read and write thread-local state. */
OPKIT_API void ProcessNMS(DetBox* boxes, uint32_t classNum, uint32_t fieldNum, uint32_t classCapacity,
                          uint32_t maxKeep);
OPKIT_API void ProcessFilterBox(DetBox* boxes, uint32_t classNum, uint32_t fieldNum, uint32_t classCapacity,
                                uint32_t maxKeep);
OPKIT_API void ProcessSort(DetBox* boxes, uint32_t classNum, uint32_t fieldNum, uint32_t classCapacity,
                           uint32_t maxKeep);

/* Sorts boxes[low] to boxes[high] by descending score. Not stable: where equal scores land is part of the contract.
 * Threads: touches its arguments only. */
OPKIT_API void QuickSort(DetBox* boxes, int32_t low, int32_t high);

/* Selection sort of the best `limit` boxes to the front; *count stays. No operator calls it.
 * Threads: touches its arguments only. */
OPKIT_API void DoSort(DetBox* boxes, uint32_t* count, uint32_t limit);

/* The priority structure of NonMaxSuppression. Its pop order is only nearly sorted, and is part of the contract. */
typedef struct HeapSlot {
    float score;    /* 0 */
    uint32_t index; /* 4 */
} HeapSlot;
OPKIT_OFFSET(HeapSlot, index, 4);
OPKIT_SIZE(HeapSlot, 8);

typedef struct BoxHeap {
    int32_t capacity; /* 0 */
    int32_t size;     /* 4  entries held */
    HeapSlot* slots;  /* 8  capacity + 1 slots, not owned; slot 0 is unused, the root is slot 1 */
} BoxHeap;
OPKIT_OFFSET(BoxHeap, size, 4);
OPKIT_OFFSET(BoxHeap, slots, 8);
OPKIT_SIZE(BoxHeap, 16);

/* Makes an empty heap in the layer's work space, (capacity + 1) * 8 bytes of it; nothing for a capacity below 1.
 * Threads, here and below: touches its arguments only. */
OPKIT_API void Init(BoxHeap* heap, LayerParam* param, int32_t capacity);
/* False for a null heap, both. */
OPKIT_API bool IsEmpty(BoxHeap* heap);
OPKIT_API bool IsFull(BoxHeap* heap);
/* Adds an entry; one equal to its parent stays below it. Returns 1, or 0 when the heap is full. */
OPKIT_API uint32_t Push(uint32_t index, BoxHeap* heap, float score);
/* Returns the root's index and stores its score; 0, with nothing stored, when the heap is empty. */
OPKIT_API uint32_t FindMax(BoxHeap* heap, float* score);
/* Removes the root and stores its score. Returns 0 when there is none, 1 when the heap is empty now, else the index of
 * the former last entry, which found a new place. */
OPKIT_API uint32_t Pop(BoxHeap* heap, float* score);

/* Returns whether two boxes overlap by more than threshold (intersection over union, strictly).
 *   boxes   [boxNum, 4]: two opposite corners (y, x, y, x) or, with center non-zero, centre x, centre y, width, height
 *   first, second  box indices
 * A box without area overlaps nothing. */
OPKIT_API bool SuppressByIOU(float* boxes, int32_t first, int32_t second, uint32_t center, float threshold);

/* *min = b and *max = a when a >= b, else *min = a and *max = b. */
OPKIT_API void MaxMin(float* min, float* max, float a, float b);
/* a < b ? a : b, and b > a ? b : a. */
OPKIT_API float HelperMin(float a, float b);
OPKIT_API float HelperMax(float a, float b);

OPKIT_END_C

#endif /* OPKIT_HELPERS_DETECTION_H */
