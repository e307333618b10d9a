# What changes inside functions of LMDB: each edit names a short anchor and must find it exactly as
# often as it says, so that a different release stops the configure step instead of the database.
# The functions called from here stand in engine.c.

function(lmdb_edit count anchor replacement)
  string(REPLACE "${anchor}" "" without "${text}")
  string(LENGTH "${text}" length)
  string(LENGTH "${without}" length_without)
  string(LENGTH "${anchor}" anchor_length)
  math(EXPR found "(${length} - ${length_without}) / ${anchor_length}")
  if(NOT found EQUAL count)
    message(FATAL_ERROR "This LMDB source does not suit the engine's edits: found ${found} times "
                        "instead of ${count}: ${anchor}")
  endif()
  string(REPLACE "${anchor}" "${replacement}" text "${text}")
  set(text "${text}" PARENT_SCOPE)
endfunction()

# State of our own in the environment.
macro(edit_environment)
  lmdb_edit(1 "void\t\t*me_userctx;" "QmrEnv me_qmr; void *me_userctx;")
  lmdb_edit(1 "VGMEMP_CREATE(e,0,0);" "qmr_env_init(&e->me_qmr);")
  lmdb_edit(1 "mdb_env_close0(env, 0);\n" "mdb_env_close0(env, 0); qmr_env_destroy(&env->me_qmr);\n")
endmacro()

# The writer lock belongs to the open lock file, not to a thread.
macro(edit_writer_lock)
  lmdb_edit(1 "LOCK_MUTEX(rc, env, env->me_wmutex)" "(rc = qmr_writer_lock(env))")
  lmdb_edit(1 "UNLOCK_MUTEX(env->me_wmutex)" "qmr_writer_unlock(env)")
  lmdb_edit(1 "LOCK_MUTEX(rc, env, wmutex)" "(rc = qmr_writer_lock(env))")
  lmdb_edit(2 "\tUNLOCK_MUTEX(wmutex)" "\tqmr_writer_unlock(env)")
endmacro()

# Opening: a smaller reader table, the previous snapshot, other processes.
macro(edit_open)
  lmdb_edit(1 "if (size < rsize && *excl > 0) {" "if (size != rsize && *excl > 0) {")
  lmdb_edit(1 "MDB_NOLOCK|MDB_NORDAHEAD)" "MDB_NOLOCK|MDB_NORDAHEAD|MDB_PREVSNAPSHOT)")
  lmdb_edit(1 "if ((rc = mdb_env_open2(env)) == MDB_SUCCESS) {"
              "if ((rc = qmr_env_opening(env, excl)) != 0) goto leave;
	if ((rc = mdb_env_open2(env)) == MDB_SUCCESS) {")
  lmdb_edit(1 "rc = mdb_env_share_locks(env, &excl);" "rc = qmr_env_opened(env, &excl);")
  lmdb_edit(1 "if (off == 0 || m->mm_txnid > meta->mm_txnid)"
              "if (!qmr_page_size_valid(m->mm_psize)) return MDB_INVALID;
		if (off == 0 || m->mm_txnid > meta->mm_txnid)")
  lmdb_edit(1 "return metas[ metas[0]->mm_txnid < metas[1]->mm_txnid ];"
              "return metas[(metas[0]->mm_txnid < metas[1]->mm_txnid) ^
		((env->me_flags & MDB_PREVSNAPSHOT) != 0)];")
  lmdb_edit(1 "if ((rc = mdb_page_flush(txn, i)) != MDB_SUCCESS)"
              "if ((rc = qmr_settle_snapshot(txn)) || (rc = mdb_page_flush(txn, i)))")
  lmdb_edit(1 "if ((rc = mdb_page_flush(txn, 0)) ||"
              "if ((rc = qmr_settle_snapshot(txn)) || (rc = mdb_page_flush(txn, 0)) ||")
endmacro()

# A page number behind the end of a file that was cut is an error, not a bus error; so is a page
# whose offsets lead out of it.
macro(edit_page_access)
  lmdb_edit(2 "env->me_maxpg = env->me_mapsize / env->me_psize;" "qmr_set_max_page(env);")
  lmdb_edit(1 "level = 0;\n\t\tp = (MDB_page *)(env->me_map + env->me_psize * pgno);"
              "level = 0;
		p = (MDB_page *)(env->me_map + env->me_psize * pgno);
		if (!qmr_page_is_sound(txn, pgno, p)) {
			txn->mt_flags |= MDB_TXN_ERROR;
			return MDB_CORRUPTED;
		}")
  lmdb_edit(1 "\tmdb_page_dirty(txn, np);\n\t*mp = np;"
              "\tqmr_pages_will_change(env, pgno, num);
	mdb_page_dirty(txn, np);\n\t*mp = np;")
  lmdb_edit(1 "if (pgno < txn->mt_next_pgno) {"
              "if (pgno < txn->mt_next_pgno && qmr_page_in_file(env, pgno)) {")
  lmdb_edit(1 "\n\tdata->mv_data = METADATA(omp);"
              "\n	if ((rc = qmr_check_overflow(mc, omp, pgno, data->mv_size)) != 0) return rc;
	data->mv_data = METADATA(omp);")
endmacro()

# Keys are compared in place, most of them by their first eight bytes.
macro(edit_search)
  lmdb_edit(2 "rc = cmp(key, &nodekey);" "rc = qmr_compare_keys(cmp, key, &nodekey);")
endmacro()

# What a search or a step finds in a damaged page is an error, not an abort of the process.
macro(edit_assertions)
  foreach(check IN ITEMS "3:IS_LEAF(mp)" "2:IS_LEAF(mc->mc_pg[mc->mc_top])"
                         "1:IS_BRANCH(mc->mc_pg[mc->mc_top])" "1:!mc->mc_dbi || NUMKEYS(mp) > 1"
                         "1:i > 0" "1:i < NUMKEYS(mp)")
    string(REGEX MATCH "^([0-9]):(.*)$" unused "${check}")
    lmdb_edit(${CMAKE_MATCH_1} "mdb_cassert(mc, ${CMAKE_MATCH_2});"
              "if (!(${CMAKE_MATCH_2})) return qmr_corrupted(mc);")
  endforeach()
endmacro()

# A node that claims duplicates where no sub-cursor exists is corrupt.
macro(edit_sub_cursors)
  lmdb_edit(5 "\n\t\tmdb_xcursor_init1(mc, leaf);"
              "\n\t\tif (!mc->mc_xcursor) return qmr_no_sub_cursor(mc, leaf);
		mdb_xcursor_init1(mc, leaf);")
  lmdb_edit(1 "rc = mdb_cursor_get(&mc->mc_xcursor->mx_cursor, data, NULL, MDB_GET_CURRENT);"
              "rc = mc->mc_xcursor ? mdb_cursor_get(&mc->mc_xcursor->mx_cursor, data, NULL,
							MDB_GET_CURRENT) : qmr_no_sub_cursor(mc, leaf);")
  lmdb_edit(1 "\n\t\t\t\tmdb_xcursor_init1(mc, leaf);"
              "\n\t\t\t\tif (!mc->mc_xcursor) return qmr_no_sub_cursor(mc, leaf);
				mdb_xcursor_init1(mc, leaf);")
  lmdb_edit(1 "\t\tif (flags & MDB_NODUPDATA) {\n\t\t\t/* mdb_cursor_del0()"
              "		if (!mc->mc_xcursor) return qmr_no_sub_cursor(mc, leaf);
		if (flags & MDB_NODUPDATA) {\n			/* mdb_cursor_del0()")
  lmdb_edit(1 "if (m3->mc_xcursor && !(m3->mc_flags & C_EOF)) {"
              "if ((rc = qmr_check_sub_cursor(m3)) != 0) goto fail;
				if (m3->mc_xcursor && !(m3->mc_flags & C_EOF)) {")
endmacro()

function(edit_lmdb source destination)
  file(READ ${source} text)
  edit_environment()
  edit_writer_lock()
  edit_open()
  edit_page_access()
  edit_search()
  edit_assertions()
  edit_sub_cursors()
  file(CONFIGURE OUTPUT ${destination} CONTENT "${text}" @ONLY NEWLINE_STYLE UNIX)
endfunction()
