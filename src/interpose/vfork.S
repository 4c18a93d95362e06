/*
 * vfork: clean up, then jump (not call) to the real vfork, so that it
 * returns straight to our caller.  A wrapper that called it and returned
 * would leave the child running on a stack frame of ours that the parent
 * reuses when it resumes.
 */
	.text
	.globl	vfork
	.type	vfork, @function
vfork:
	.cfi_startproc
	subq	$8, %rsp		/* align the stack for the call */
	.cfi_adjust_cfa_offset 8
	call	ost_vfork_prepare
	addq	$8, %rsp
	.cfi_adjust_cfa_offset -8
	jmp	*real_vfork(%rip)
	.cfi_endproc
	.size	vfork, .-vfork

	.section .note.GNU-stack, "", @progbits
