# A program or suite counts as skipped when it ended well and some of its tests were skipped: their list is the last that it says.
set(NORV_SKIPPED [=[\[  SKIPPED \] [0-9]+ tests?, listed below:
(\[  SKIPPED \] [^
]*
)+$]=])
